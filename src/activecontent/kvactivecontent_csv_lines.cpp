// Which delimiter makes a table of the text: every line must hold as many of it as the first.
#define KV_LOG_UNIT "kvactivecontent_csv"
#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_csv_line_counter.h"
#include "logging/log-helper.h"

namespace {

constexpr std::size_t kCandidates = KV_CSV_DELIMITERS.size();

// One delimiter under test: every line must hold as many as the first.
class candidate {
 public:
  candidate(char delimiter, std::size_t first_line_count)
      : delimiter_(delimiter), wanted_(first_line_count), valid_(first_line_count != 0) {}

  [[nodiscard]] bool is_valid() const { return valid_; }
  [[nodiscard]] char delimiter() const { return delimiter_; }
  [[nodiscard]] std::size_t wanted() const { return wanted_; }

  void judge(std::size_t count) {
    if (valid_ && count != wanted_) {
      valid_ = false;
      differs_ = true;
      count_ = count;
    }
  }

  // An empty line is judged by all the rest of the text.
  void judge_empty_line(std::string_view text, std::size_t line_feed) {
    if (!valid_) {
      return;
    }
    if (!bad_is_known_) {
      // Most texts fail here, after a line or two. The trace wants the whole count.
      const std::size_t limit = log_is_enabled(KV_LOG_LEVEL_DEBUG) ? KV_CSV_NO_LIMIT : wanted_;
      judge(kv_csv_count(text.substr(line_feed + 1), delimiter_, limit));
      if (!valid_) {
        return;
      }
      bad_ = kv_csv_first_bad_empty_line(text.substr(line_feed + 1), delimiter_, wanted_);
      bad_.at += bad_.at == std::string_view::npos ? 0 : line_feed + 1;
      bad_is_known_ = true;
    }
    if (line_feed == bad_.at) {
      judge(bad_.count);
    }
  }

  void log_difference() const {
    if (differs_) {
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_csv_command",
                "This line has %d delimiters, previous line had %d - NOT A CSV",
                static_cast<int>(count_), static_cast<int>(wanted_));
    }
  }

 private:
  char delimiter_;
  std::size_t wanted_;
  bool valid_;
  bool differs_ = false;
  std::size_t count_ = 0;  // of the first line that differs
  bool bad_is_known_ = false;
  kv_csv_empty_line bad_{std::string_view::npos, 0};
};

// Judges the lines of text behind the first one for N candidates.
template <std::size_t N, class Bits>
void s_judge_lines(std::string_view text, std::span<candidate> candidates, kv_simd_level level) {
  std::array<char, N> delimiters;
  kv_csv_counts<N> wanted;
  for (std::size_t i = 0; i < N; ++i) {
    delimiters[i] = candidates[i].delimiter();
    wanted[i] = candidates[i].wanted();
  }
  kv_csv_line_counter<N, Bits> lines{delimiters, wanted, level};
  const auto judge_line = [&](std::size_t end) {
    const std::size_t length = end - lines.line_begin();
    for (std::size_t i = 0; i < N; ++i) {
      if (length == 0) {
        candidates[i].judge_empty_line(text, end);
      } else if (length >= KV_CSV_SHORT_LINE) {
        candidates[i].judge(lines.counts()[i]);
      }
    }
    return std::ranges::any_of(candidates, &candidate::is_valid);
  };
  lines.run(text, judge_line);
  // The text behind the last line feed is a line too, but never an empty one.
  if (lines.line_begin() < text.size()) {
    judge_line(text.size());
  }
}

// The same with all it calls in one function, so that bits are counted in one instruction.
template <std::size_t N>
__attribute__((target("popcnt"), flatten)) void s_judge_lines_by_instruction(
    std::string_view text, std::span<candidate> candidates, kv_simd_level level) {
  s_judge_lines<N, kv_bits_by_instruction>(text, candidates, level);
}

// By the number of candidates less one.
using judge_list =
    std::array<void (*)(std::string_view, std::span<candidate>, kv_simd_level), kCandidates>;
constexpr judge_list kBySums{s_judge_lines<1, kv_bits_by_sums>, s_judge_lines<2, kv_bits_by_sums>,
                             s_judge_lines<3, kv_bits_by_sums>, s_judge_lines<4, kv_bits_by_sums>};
constexpr judge_list kByInstruction{
    s_judge_lines_by_instruction<1>, s_judge_lines_by_instruction<2>,
    s_judge_lines_by_instruction<3>, s_judge_lines_by_instruction<4>};

const judge_list& s_judges(kv_simd_level level) {
  static const bool by_instruction = __builtin_cpu_supports("popcnt") != 0;
  return by_instruction && level != kv_simd_level::scalar ? kByInstruction : kBySums;
}

kv_csv_counts<kCandidates> s_count_all(std::string_view line, kv_simd_level level) {
  std::array<char, kCandidates> delimiters;
  std::ranges::copy(KV_CSV_DELIMITERS, delimiters.begin());
  kv_csv_line_counter<kCandidates, kv_bits_by_sums> counter{delimiters, {}, level};
  counter.run(line, [](std::size_t) { return true; });
  return counter.counts();
}

char s_choose_for_one_line(std::string_view line, kv_simd_level level) {
  const kv_csv_counts<kCandidates> counts = s_count_all(line, level);
  for (std::size_t i = 0; i < kCandidates; ++i) {
    if (counts[i] != 0) {
      return KV_CSV_DELIMITERS[i];
    }
  }
  return '\0';
}

}  // namespace

char kv_csv_choose_delimiter(std::string_view bytes, kv_simd_level level) {
  const std::size_t first_feed = bytes.find('\n');
  if (first_feed == std::string_view::npos) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_csv_command", "Buffer is one line only");
    return s_choose_for_one_line(bytes, level);
  }
  const kv_csv_counts<kCandidates> first_line = s_count_all(bytes.substr(0, first_feed), level);
  std::vector<candidate> candidates;  // those that occur in the first line
  for (std::size_t i = 0; i < kCandidates; ++i) {
    if (first_line[i] != 0) {
      candidates.emplace_back(KV_CSV_DELIMITERS[i], first_line[i]);
    }
  }
  if (candidates.empty()) {
    return '\0';
  }
  s_judges(level)[candidates.size() - 1](bytes.substr(first_feed + 1), candidates, level);
  for (const candidate& one : candidates) {
    one.log_difference();
  }
  const auto valid = std::ranges::find_if(candidates, &candidate::is_valid);
  return valid == candidates.end() ? '\0' : valid->delimiter();
}
