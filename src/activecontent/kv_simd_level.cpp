#include "activecontent/kv_simd_level.h"

kv_simd_level kv_best_simd_level() {
  static const kv_simd_level level = [] {
    if (__builtin_cpu_supports("avx2")) {
      return kv_simd_level::avx2;
    }
    return __builtin_cpu_supports("ssse3") ? kv_simd_level::ssse3 : kv_simd_level::scalar;
  }();
  return level;
}
