#pragma once
// Which vector instructions this processor has. Every x86-64 processor has SSE2; what goes beyond
// stands in functions with target attributes of their own, chosen at run time by this level. Any
// thread.

#include <cstdint>

enum class kv_simd_level : std::uint8_t { scalar, ssse3, avx2 };

// The highest level of this processor.
[[nodiscard]] kv_simd_level kv_best_simd_level();
