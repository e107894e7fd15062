#pragma once
// The two byte classifiers under the markup scan, each in a version for every kind of processor.
// Both turn runs of 64 bytes into words of 64 bits, one bit per byte, lowest bit first. All
// versions give the same bits. Pure functions; any thread.

#include <cstddef>
#include <cstdint>

#include "activecontent/kv_simd_level.h"

// Bytes behind the last word that a classifier may read.
inline constexpr std::size_t KV_KERNEL_MARGIN = 32;

struct kv_markup_kernels {
  // Marks where a literal of markup_literals may begin: every true beginning, and few others.
  void (*candidates)(const char* text, std::size_t words, std::uint64_t* marked);
  // Marks each "<", and each byte that matters inside a tag: ">", double quote, "!", CR, LF, NUL.
  void (*structure)(const char* text, std::size_t words, std::uint64_t* less_than,
                    std::uint64_t* events);
};

[[nodiscard]] const kv_markup_kernels& kv_kernels_of(kv_simd_level level);
