#pragma once
// Counts the candidate delimiters of a text line by line, all in one pass over marked bytes. Quotes
// and backslashes hide delimiters up to the end of their line. Private to the check for formula
// injection. One thread a counter.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_csv_marks.h"

template <std::size_t N>
using kv_csv_counts = std::array<std::size_t, N>;

// Every bit becomes the parity of the bits up to itself: between two quotes, ones.
[[nodiscard]] inline std::uint64_t kv_parity_up_to(std::uint64_t bits) {
  for (unsigned shift = 1; shift < 64; shift *= 2) {
    bits ^= bits << shift;
  }
  return bits;
}

// How the bits of a word are counted: by the processor's own instruction, which most have, or
// without it.
struct kv_bits_by_instruction {
  __attribute__((target("popcnt"))) static std::size_t count(std::uint64_t bits) {
    return static_cast<std::size_t>(__builtin_popcountll(bits));
  }
};
struct kv_bits_by_sums {
  static std::size_t count(std::uint64_t bits) { return kv_count_bits(bits); }
};

// For N delimiters.
template <std::size_t N, class Bits>
class kv_csv_line_counter {
 public:
  // Lines with so many delimiters as wanted are the common ones.
  kv_csv_line_counter(const std::array<char, N>& delimiters, const kv_csv_counts<N>& wanted,
                      kv_simd_level level)
      : kernels_(kv_csv_kernels_of(level)), delimiters_(delimiters), wanted_(wanted) {}

  // Hands every line to on_line, by the offset of its line feed, but for common lines of two bytes
  // and more. on_line looks at line_begin() and counts() and answers whether to go on. What stands
  // behind the last line feed is left in them.
  template <class OnLine>
  void run(std::string_view text, OnLine&& on_line) {
    text_ = text;
    kv_csv_for_each_chunk(text, [&](const char* bytes, std::size_t words, std::size_t offset) {
      return take_chunk(bytes, words, offset, on_line);
    });
  }
  // Of the line up to the line feed last handed out, by delimiter.
  [[nodiscard]] const kv_csv_counts<N>& counts() const { return line_.counts; }
  [[nodiscard]] std::size_t line_begin() const { return line_.begin; }

 private:
  // The line at hand.
  struct line {
    std::size_t begin = 0;
    kv_csv_counts<N> counts{};
  };

  template <class OnLine>
  bool take_chunk(const char* bytes, std::size_t words, std::size_t offset, OnLine& on_line) {
    kernels_.equal(bytes, words, '\n', line_feeds_.data());
    for (std::size_t i = 0; i < N; ++i) {
      kernels_.equal(bytes, words, delimiters_[i], found_[i].data());
    }
    const bool bare = quoting_ == kv_csv_quoting::none && hidden_to_ <= offset &&
                      !kernels_.holds_hiding(bytes, words);
    if (!bare) {
      kernels_.equal(bytes, words, '"', double_quotes_.data());
      kernels_.equal(bytes, words, '\'', single_quotes_.data());
      kernels_.equal(bytes, words, '\\', backslashes_.data());
    }
    // Runs of words of the common kinds, and others one by one.
    bool go_on = true;
    for (std::size_t word = 0; word < words && go_on; ++word) {
      const std::size_t begin = word;
      word = bare ? words : hide_quoted_run(begin, words, offset);
      go_on = take_bare_words(begin, word, offset, on_line) &&
              (word == words || take_marks(word, offset + word * KV_BLOCK_SIZE, on_line));
    }
    return go_on;
  }

  // The first word from one on that hide_quoted does not take.
  std::size_t hide_quoted_run(std::size_t word, std::size_t words, std::size_t offset) {
    while (word < words && hide_quoted(word, offset + word * KV_BLOCK_SIZE)) {
      ++word;
    }
    return word;
  }

  // The common case of quoting: double quotes, closed on their line, with no backslash and no
  // single quote but within them. Takes the hidden delimiters out and steps to the quoting behind
  // the word; false, and nothing done, where the word is not so.
  bool hide_quoted(std::size_t word, std::size_t offset) {
    if (quoting_ == kv_csv_quoting::in_single || hidden_to_ > offset) {
      return false;
    }
    const std::uint64_t open = quoting_ == kv_csv_quoting::in_double ? ~std::uint64_t{0} : 0;
    const std::uint64_t inside = kv_parity_up_to(double_quotes_[word]) ^ open;
    const std::uint64_t exceptions =
        backslashes_[word] | (single_quotes_[word] & ~inside) | (line_feeds_[word] & inside);
    if (exceptions != 0) {
      return false;
    }
    for (std::size_t i = 0; i < N; ++i) {
      found_[i][word] &= ~inside;
    }
    quoting_ = (inside >> 63) != 0 ? kv_csv_quoting::in_double : kv_csv_quoting::none;
    return true;
  }

  // Words whose delimiters all count. The line stands in a local variable, which need not be in
  // memory.
  template <class OnLine>
  bool take_bare_words(std::size_t begin, std::size_t end, std::size_t offset, OnLine& on_line) {
    line now = line_;
    bool go_on = true;
    for (std::size_t word = begin; word < end && go_on; ++word) {
      go_on = take_bare(word, offset + word * KV_BLOCK_SIZE, now, on_line);
    }
    line_ = now;
    return go_on;
  }

  // One sum for each line.
  template <class OnLine>
  bool take_bare(std::size_t word, std::size_t offset, line& now, OnLine& on_line) {
    std::uint64_t rest = ~std::uint64_t{0};
    for (std::uint64_t feeds = line_feeds_[word]; feeds != 0; feeds &= feeds - 1) {
      const std::uint64_t before = (feeds & (~feeds + 1)) - 1;
      add(now, word, rest & before);
      if (!end_line(offset + kv_first_bit(feeds), now, on_line)) {
        return false;
      }
      rest = ~before;
    }
    add(now, word, rest);
    return true;
  }

  void add(line& now, std::size_t word, std::uint64_t part) const {
    for (std::size_t i = 0; i < N; ++i) {
      now.counts[i] += Bits::count(found_[i][word] & part);
    }
  }

  // Any word: marked byte by marked byte.
  template <class OnLine>
  bool take_marks(std::size_t word, std::size_t offset, OnLine& on_line) {
    std::uint64_t all =
        line_feeds_[word] | double_quotes_[word] | single_quotes_[word] | backslashes_[word];
    for (std::size_t i = 0; i < N; ++i) {
      all |= found_[i][word];
    }
    for (; all != 0; all &= all - 1) {
      const std::size_t at = offset + kv_first_bit(all);
      if (text_[at] != '\n') {
        take_mark(at, word, all & (~all + 1));
        continue;
      }
      quoting_ = kv_csv_quoting::none;
      hidden_to_ = 0;
      if (!end_line(at, line_, on_line)) {
        return false;
      }
    }
    return true;
  }

  void take_mark(std::size_t at, std::size_t word, std::uint64_t bit) {
    if (at < hidden_to_) {
      return;
    }
    switch (text_[at]) {
      case '\\':
        hidden_to_ = at + 2;
        return;
      case '"':
        toggle(kv_csv_quoting::in_double);
        return;
      case '\'':
        toggle(kv_csv_quoting::in_single);
        return;
      default:
        break;
    }
    for (std::size_t i = 0; i < N && quoting_ == kv_csv_quoting::none; ++i) {
      line_.counts[i] += (found_[i][word] & bit) != 0 ? 1 : 0;
    }
  }

  void toggle(kv_csv_quoting kind) {
    if (quoting_ == kv_csv_quoting::none) {
      quoting_ = kind;
    } else if (quoting_ == kind) {
      quoting_ = kv_csv_quoting::none;
    }
  }

  template <class OnLine>
  bool end_line(std::size_t line_feed, line& now, OnLine& on_line) {
    bool go_on = true;
    if (line_feed - now.begin < KV_CSV_SHORT_LINE || !is_common(now)) {
      line_ = now;
      go_on = on_line(line_feed);
    }
    now = {line_feed + 1, {}};
    return go_on;
  }

  [[nodiscard]] bool is_common(const line& now) const {
    std::size_t differences = 0;
    for (std::size_t i = 0; i < N; ++i) {
      differences |= now.counts[i] ^ wanted_[i];
    }
    return differences == 0;
  }

  const kv_csv_kernels& kernels_;
  std::array<char, N> delimiters_;
  kv_csv_counts<N> wanted_;
  std::string_view text_;
  line line_;
  kv_csv_quoting quoting_ = kv_csv_quoting::none;
  std::size_t hidden_to_ = 0;  // behind a backslash and its byte
  // Of the chunk at hand; those that hide are set where one of them stands in it.
  kv_csv_marks line_feeds_;
  std::array<kv_csv_marks, N> found_;
  kv_csv_marks double_quotes_;
  kv_csv_marks single_quotes_;
  kv_csv_marks backslashes_;
};
