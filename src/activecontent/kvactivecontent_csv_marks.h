#pragma once
// The byte classifiers under the check for formula injection, each in a version for every kind of
// processor. They turn runs of 64 bytes into words of 64 bits, one bit per byte, lowest bit first.
// All versions give the same bits. Private to the detector and its tests. Pure functions; any
// thread.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "activecontent/kv_byte_blocks.h"
#include "activecontent/kv_simd_level.h"

struct kv_csv_kernels {
  // Marks each byte of one value.
  void (*equal)(const char* text, std::size_t words, char value, std::uint64_t* marks);
  // Whether a byte stands there that hides delimiters: a quote of either kind or a backslash.
  bool (*holds_hiding)(const char* text, std::size_t words);
  // Marks delimiters in front of a leading character, or of white space that one may stand behind;
  // others too, but few. Reads one byte more.
  void (*formulas)(const char* text, std::size_t words, char delimiter, std::uint64_t* marks);
};

// The fastest version for the level.
[[nodiscard]] const kv_csv_kernels& kv_csv_kernels_of(kv_simd_level level);

// Text is marked by so many words at a time.
inline constexpr std::size_t KV_CSV_CHUNK_WORDS = 16;
using kv_csv_marks = std::array<std::uint64_t, KV_CSV_CHUNK_WORDS>;

// Hands out the text in chunks: take(bytes, words, offset) answers whether to go on, and may read
// one byte more. The last bytes come in a copy, with zero bytes behind them.
template <class Take>
void kv_csv_for_each_chunk(std::string_view text, Take&& take) {
  std::size_t offset = 0;
  while (text.size() - offset > KV_BLOCK_SIZE) {
    const std::size_t words =
        std::min((text.size() - offset - 1) / KV_BLOCK_SIZE, KV_CSV_CHUNK_WORDS);
    if (!take(text.data() + offset, words, offset)) {
      return;
    }
    offset += words * KV_BLOCK_SIZE;
  }
  if (offset < text.size()) {
    std::array<char, KV_BLOCK_SIZE + 1> last{};
    text.copy(last.data(), last.size(), offset);
    static_cast<void>(take(last.data(), std::size_t{1}, offset));
  }
}
