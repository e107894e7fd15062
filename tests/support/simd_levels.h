#pragma once
// The vector levels that this processor can run: tests hold each of them to the same answers.

#include <vector>

#include "activecontent/kv_simd_level.h"

[[nodiscard]] inline std::vector<kv_simd_level> available_simd_levels() {
  std::vector<kv_simd_level> levels;
  for (const auto level : {kv_simd_level::scalar, kv_simd_level::ssse3, kv_simd_level::avx2}) {
    if (level <= kv_best_simd_level()) {
      levels.push_back(level);
    }
  }
  return levels;
}
