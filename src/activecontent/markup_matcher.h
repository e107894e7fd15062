#pragma once
// Finds every literal of markup_literals in a text, in one pass, in any letter case. Where several
// begin at one place each is the beginning of the next, and the longest is given. A matcher is used
// by one thread; the text is borrowed for its life.

#include <array>
#include <cstdint>
#include <string_view>

#include "activecontent/markup_kernels.h"
#include "activecontent/markup_literals.h"

class kv_literal_matcher {
 public:
  kv_literal_matcher(std::string_view text, kv_simd_level level, std::size_t from = 0)
      : text_(text), kernels_(kv_kernels_of(level)), chunk_(from), behind_(from) {}

  // The next occurrence by position; false at the end of the text.
  [[nodiscard]] bool next(kv_literal_hit& hit);

 private:
  static constexpr std::size_t kChunkWords = 64;

  [[nodiscard]] bool mark_next_chunk();

  std::string_view text_;
  const kv_markup_kernels& kernels_;
  std::size_t chunk_;        // where the marked chunk begins
  std::size_t behind_;       // where the next one will
  std::size_t words_ = 0;    // in the marked chunk
  std::size_t word_ = 0;     // being looked at
  std::uint64_t marks_ = 0;  // of that word, what is left
  std::array<std::uint64_t, kChunkWords> marked_{};
};
