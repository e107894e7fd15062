#pragma once
// Looking at text 64 bytes at a time: which of them equal a value is a mask of 64 bits, bit i for
// byte i. Built on SSE2, which every x86-64 processor has. Pure; any thread.

#include <emmintrin.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

inline constexpr std::size_t KV_BLOCK_SIZE = 64;

struct kv_byte_block {
  static constexpr std::size_t kParts = KV_BLOCK_SIZE / sizeof(__m128i);
  __m128i parts[kParts];

  // Reads KV_BLOCK_SIZE bytes.
  static kv_byte_block load(const char* bytes) {
    kv_byte_block block;
    for (std::size_t i = 0; i < kParts; ++i) {
      block.parts[i] =
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + sizeof(__m128i) * i));
    }
    return block;
  }

  // The mask of the bytes that test maps to all ones, in vectors of sixteen.
  template <class Test>
  [[nodiscard]] std::uint64_t mask(Test test) const {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < kParts; ++i) {
      const auto sixteen = static_cast<std::uint32_t>(_mm_movemask_epi8(test(parts[i])));
      bits |= std::uint64_t{sixteen} << (sizeof(__m128i) * i);
    }
    return bits;
  }

  [[nodiscard]] std::uint64_t equal(char value) const {
    const __m128i wanted = _mm_set1_epi8(value);
    return mask([&](__m128i part) { return _mm_cmpeq_epi8(part, wanted); });
  }
};

// Mask of the lowest count bits, at most 64.
[[nodiscard]] inline std::uint64_t kv_low_bits(std::size_t count) {
  return count >= KV_BLOCK_SIZE ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1;
}

[[nodiscard]] inline std::size_t kv_first_bit(std::uint64_t bits) {
  return static_cast<std::size_t>(std::countr_zero(bits));
}

// A text inside a larger run of readable bytes: what lies behind the text may be loaded, but means
// nothing.
struct kv_text_window {
  const char* bytes;
  std::size_t size;      // of the text
  std::size_t readable;  // bytes that may be loaded, at least size

  [[nodiscard]] std::string_view text() const { return {bytes, size}; }
  [[nodiscard]] kv_text_window from(std::size_t at) const {
    return {bytes + at, size - at, readable - at};
  }
  [[nodiscard]] kv_text_window first(std::size_t count) const { return {bytes, count, readable}; }
};

// Loads the block at an offset, and the bytes behind it as far as they are readable: a block at the
// very end comes from a copy.
class kv_block_reader {
 public:
  explicit kv_block_reader(const kv_text_window& window) : window_(window) {}

  // Where a block and one byte more can be loaded from, for the text at offset (below its size).
  [[nodiscard]] const char* at(std::size_t offset) {
    const std::size_t left = window_.readable - offset;
    if (left > KV_BLOCK_SIZE) {
      return window_.bytes + offset;
    }
    std::memset(copy_.data() + left, 0, copy_.size() - left);
    std::memcpy(copy_.data(), window_.bytes + offset, left);
    return copy_.data();
  }
  // The bits of the block at offset that belong to the text.
  [[nodiscard]] std::uint64_t valid(std::size_t offset) const {
    return kv_low_bits(window_.size - offset);
  }

 private:
  kv_text_window window_;
  std::array<char, KV_BLOCK_SIZE + 1> copy_;
};
