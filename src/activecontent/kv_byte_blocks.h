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
  // Four, written out wherever they are worked on: compilers leave loops over them standing.
  __m128i parts[4];

  // Reads KV_BLOCK_SIZE bytes.
  static kv_byte_block load(const char* bytes) {
    return {{s_load(bytes), s_load(bytes + 16), s_load(bytes + 32), s_load(bytes + 48)}};
  }

  // What test makes of each vector of sixteen.
  template <class Test>
  [[nodiscard]] kv_byte_block map(Test test) const {
    return {{test(parts[0]), test(parts[1]), test(parts[2]), test(parts[3])}};
  }
  [[nodiscard]] kv_byte_block equal_bytes(char value) const {
    const __m128i wanted = _mm_set1_epi8(value);
    return map([&](__m128i part) { return _mm_cmpeq_epi8(part, wanted); });
  }
  [[nodiscard]] kv_byte_block operator&(const kv_byte_block& other) const {
    return {{_mm_and_si128(parts[0], other.parts[0]), _mm_and_si128(parts[1], other.parts[1]),
             _mm_and_si128(parts[2], other.parts[2]), _mm_and_si128(parts[3], other.parts[3])}};
  }
  [[nodiscard]] kv_byte_block operator|(const kv_byte_block& other) const {
    return {{_mm_or_si128(parts[0], other.parts[0]), _mm_or_si128(parts[1], other.parts[1]),
             _mm_or_si128(parts[2], other.parts[2]), _mm_or_si128(parts[3], other.parts[3])}};
  }
  [[nodiscard]] kv_byte_block without(const kv_byte_block& other) const {
    return {{_mm_andnot_si128(other.parts[0], parts[0]), _mm_andnot_si128(other.parts[1], parts[1]),
             _mm_andnot_si128(other.parts[2], parts[2]),
             _mm_andnot_si128(other.parts[3], parts[3])}};
  }

  // True when a byte is not zero in its highest bit, as those that compared equal are.
  [[nodiscard]] bool any() const {
    return _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(parts[0], parts[1]),
                                          _mm_or_si128(parts[2], parts[3]))) != 0;
  }
  // The highest bits as a mask.
  [[nodiscard]] std::uint64_t bits() const {
    return s_bits(parts[0]) | s_bits(parts[1]) << 16 | s_bits(parts[2]) << 32 |
           s_bits(parts[3]) << 48;
  }
  [[nodiscard]] std::uint64_t equal(char value) const { return equal_bytes(value).bits(); }

 private:
  static __m128i s_load(const char* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  }
  static std::uint64_t s_bits(__m128i part) {
    return static_cast<std::uint32_t>(_mm_movemask_epi8(part));
  }
};

// How many bits are set. Without the processor's own instruction, which not every x86-64 has, the
// library's function costs a call.
[[nodiscard]] constexpr std::size_t kv_count_bits(std::uint64_t bits) {
  bits -= (bits >> 1) & 0x5555555555555555U;
  bits = (bits & 0x3333333333333333U) + ((bits >> 2) & 0x3333333333333333U);
  bits = (bits + (bits >> 4)) & 0x0f0f0f0f0f0f0f0fU;
  return static_cast<std::size_t>((bits * 0x0101010101010101U) >> 56);
}
static_assert(kv_count_bits(0) == 0 && kv_count_bits(~std::uint64_t{0}) == 64);

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

  // Bytes behind a block that may be loaded with it.
  static constexpr std::size_t kMargin = 2;

  // Where a block and its margin can be loaded from, for the text at offset (below its size).
  [[nodiscard]] const char* at(std::size_t offset) {
    const std::size_t left = window_.readable - offset;
    if (left >= copy_.size()) {
      return window_.bytes + offset;
    }
    std::memset(copy_.data() + left, 0, copy_.size() - left);
    std::memcpy(copy_.data(), window_.bytes + offset, left);
    return copy_.data();
  }

 private:
  kv_text_window window_;
  std::array<char, KV_BLOCK_SIZE + kMargin> copy_;
};
