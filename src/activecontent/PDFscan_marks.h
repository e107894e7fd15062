#pragma once
// The byte classifiers under the searches for objects and keywords, each in a version for every
// kind of processor. All versions give the same bits. Private to the scanner and its tests. Pure
// functions; any thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "activecontent/kv_simd_level.h"

// ASCII letters only, whatever the locale.
[[nodiscard]] constexpr char kv_pdf_lower(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + ('a' - 'A')) : byte;
}
[[nodiscard]] constexpr char kv_pdf_upper(char byte) {
  return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - ('a' - 'A')) : byte;
}

// The first three bytes of each word, in both letter cases, are its key. Words are spread over
// eight buckets, one bit each; a byte of the text fits a bucket at offset k when the entries of its
// low and its high half share the bucket's bit. A shorter word leaves the rest of its key open.
struct kv_pdf_keys {
  static constexpr std::size_t kLength = 3;
  static constexpr std::size_t kBuckets = 8;

  void admit(std::string_view word, std::size_t bucket);

  alignas(16) std::array<std::array<std::uint8_t, 16>, kLength> low{};
  alignas(16) std::array<std::array<std::uint8_t, 16>, kLength> high{};
};

// Where "obj" begins in the first block of 64 bytes that holds one, and how many blocks lie in
// front of it.
struct kv_pdf_object_marks {
  std::size_t blocks_before;
  std::uint64_t marks;  // none when no block holds one
};

// Both read two bytes behind their last block.
struct kv_pdf_kernels {
  kv_pdf_object_marks (*objects)(const char* bytes, std::size_t blocks);
  // Marks in one block where words may begin: every true beginning, and few others.
  std::uint64_t (*words)(const kv_pdf_keys& keys, const char* bytes);
};
[[nodiscard]] const kv_pdf_kernels& kv_pdf_kernels_of(kv_simd_level level);
