// Which delimiter makes a table of the text: all candidates are counted in one pass, line by line.
#define KV_LOG_UNIT "kvactivecontent_csv"
#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "activecontent/kv_byte_blocks.h"
#include "activecontent/kvactivecontent_csv_internal.h"
#include "logging/log-helper.h"

namespace {

constexpr std::size_t kCandidates = KV_CSV_DELIMITERS.size();
constexpr std::size_t kShortLine = 2;  // shorter lines say nothing of a table
constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

template <std::size_t N>
using count_list = std::array<std::size_t, N>;

enum class quoting : std::uint8_t { none, in_double, in_single };

// Every bit becomes the parity of the bits up to itself: between two quotes, ones.
std::uint64_t s_parity_up_to(std::uint64_t bits) {
  for (unsigned shift = 1; shift < 64; shift *= 2) {
    bits ^= bits << shift;
  }
  return bits;
}

// Counts N delimiters line by line. Quotes and backslashes hide delimiters up to the end of the
// line.
template <std::size_t N>
class line_counter {
 public:
  explicit line_counter(const std::array<char, N>& delimiters) : delimiters_(delimiters) {}

  // Hands the offset of every line feed to on_line, which looks at counts() and answers whether to
  // go on. What stands behind the last line feed is left in counts().
  template <class OnLine>
  void run(std::string_view text, OnLine&& on_line) {
    text_ = text;
    // Behind the text's end the reader gives zero bytes, which nothing here looks for.
    kv_block_reader reader{{text.data(), text.size(), text.size()}};
    for (std::size_t offset = 0; offset < text.size(); offset += KV_BLOCK_SIZE) {
      if (!take_block(kv_byte_block::load(reader.at(offset)), offset, on_line)) {
        return;
      }
    }
  }
  // Of the line up to the line feed last handed out, by delimiter.
  [[nodiscard]] const count_list<N>& counts() const { return counts_; }

 private:
  struct block_masks {
    std::uint64_t line_feeds;
    std::array<std::uint64_t, N> delimiters;
  };

  template <class OnLine>
  bool take_block(const kv_byte_block& bytes, std::size_t offset, OnLine& on_line) {
    block_masks masks;
    masks.line_feeds = bytes.equal('\n');
    for (std::size_t i = 0; i < N; ++i) {
      masks.delimiters[i] = bytes.equal(delimiters_[i]);
    }
    const kv_byte_block hiding = s_hiding(bytes);
    if (!hiding.any() && quoting_ == quoting::none && hidden_to_ <= offset) {
      return take_bare(masks, offset, on_line);
    }
    const std::optional<quoting> behind = hide_quoted(bytes, offset, masks);
    if (!behind) {
      return take_marks(masks, hiding.bits(), offset, on_line);
    }
    const bool go_on = take_bare(masks, offset, on_line);
    quoting_ = *behind;
    return go_on;
  }

  static kv_byte_block s_hiding(const kv_byte_block& bytes) {
    return bytes.equal_bytes('"') | bytes.equal_bytes('\'') | bytes.equal_bytes('\\');
  }

  // The common case of quoting: double quotes, closed on their line, with no backslash and no
  // single quote but within them. Takes the hidden delimiters out and returns the quoting behind
  // the block; nothing, where the block is not so.
  std::optional<quoting> hide_quoted(const kv_byte_block& bytes, std::size_t offset,
                                     block_masks& masks) const {
    if (quoting_ == quoting::in_single || hidden_to_ > offset) {
      return std::nullopt;
    }
    const std::uint64_t open = quoting_ == quoting::in_double ? ~std::uint64_t{0} : 0;
    const std::uint64_t inside = s_parity_up_to(bytes.equal('"')) ^ open;
    const std::uint64_t exceptions = bytes.equal('\\') | (bytes.equal('\'') & ~inside);
    if (exceptions != 0 || (masks.line_feeds & inside) != 0) {
      return std::nullopt;
    }
    for (std::size_t i = 0; i < N; ++i) {
      masks.delimiters[i] &= ~inside;
    }
    return (inside >> 63) != 0 ? quoting::in_double : quoting::none;
  }

  // A block whose delimiters all count: one sum for each line.
  template <class OnLine>
  bool take_bare(const block_masks& masks, std::size_t offset, OnLine& on_line) {
    std::uint64_t rest = ~std::uint64_t{0};
    for (std::uint64_t feeds = masks.line_feeds; feeds != 0; feeds &= feeds - 1) {
      const std::uint64_t before = (feeds & (~feeds + 1)) - 1;
      add(masks, rest & before);
      if (!end_line(offset + kv_first_bit(feeds), on_line)) {
        return false;
      }
      rest = ~before;
    }
    add(masks, rest);
    return true;
  }

  void add(const block_masks& masks, std::uint64_t part) {
    for (std::size_t i = 0; i < N; ++i) {
      counts_[i] += kv_count_bits(masks.delimiters[i] & part);
    }
  }

  // Any block: marked byte by marked byte.
  template <class OnLine>
  bool take_marks(const block_masks& masks, std::uint64_t hiding, std::size_t offset,
                  OnLine& on_line) {
    std::uint64_t marks = masks.line_feeds | hiding;
    for (std::size_t i = 0; i < N; ++i) {
      marks |= masks.delimiters[i];
    }
    for (; marks != 0; marks &= marks - 1) {
      const std::size_t at = offset + kv_first_bit(marks);
      if (text_[at] != '\n') {
        take_mark(at, marks & (~marks + 1), masks);
      } else if (!end_line(at, on_line)) {
        return false;
      }
    }
    return true;
  }

  void take_mark(std::size_t at, std::uint64_t bit, const block_masks& masks) {
    if (at < hidden_to_) {
      return;
    }
    switch (text_[at]) {
      case '\\':
        hidden_to_ = at + 2;
        return;
      case '"':
        toggle(quoting::in_double);
        return;
      case '\'':
        toggle(quoting::in_single);
        return;
      default:
        break;
    }
    for (std::size_t i = 0; i < N && quoting_ == quoting::none; ++i) {
      counts_[i] += (masks.delimiters[i] & bit) != 0 ? 1 : 0;
    }
  }

  void toggle(quoting kind) {
    if (quoting_ == quoting::none) {
      quoting_ = kind;
    } else if (quoting_ == kind) {
      quoting_ = quoting::none;
    }
  }

  template <class OnLine>
  bool end_line(std::size_t line_feed, OnLine& on_line) {
    quoting_ = quoting::none;
    hidden_to_ = 0;
    const bool go_on = on_line(line_feed);
    counts_ = {};
    return go_on;
  }

  std::string_view text_;
  std::array<char, N> delimiters_;
  count_list<N> counts_{};
  quoting quoting_ = quoting::none;
  std::size_t hidden_to_ = 0;  // behind a backslash and its byte
};

// Delimiters in text across its line feeds; counting may stop once there are more than limit.
std::size_t s_count(std::string_view text, char delimiter, std::size_t limit) {
  std::size_t count = 0;
  quoting inside = quoting::none;
  for (std::size_t at = 0; at < text.size() && count <= limit; ++at) {
    const char byte = text[at];
    if (byte == '\\') {
      ++at;
    } else if (byte == '"' && inside != quoting::in_single) {
      const bool closes = inside == quoting::in_double;
      inside = closes ? quoting::none : quoting::in_double;
      count += closes && byte == delimiter ? 1 : 0;
    } else if (byte == '\'' && inside != quoting::in_double) {
      const bool closes = inside == quoting::in_single;
      inside = closes ? quoting::none : quoting::in_single;
      count += closes && byte == delimiter ? 1 : 0;
    } else if (inside == quoting::none && byte == delimiter) {
      ++count;
    }
  }
  return count;
}

// How many delimiters stand from an offset to the end of the text, for each state of quoting that
// the offset may be reached in.
struct suffix_counts {
  std::array<std::size_t, 3> by_quoting{};

  [[nodiscard]] std::size_t& in(quoting state) {
    return by_quoting[static_cast<std::size_t>(state)];
  }
};

struct empty_line {
  std::size_t at;     // its line feed
  std::size_t count;  // delimiters in all the rest of the text
};

// The first empty line whose rest does not hold so many delimiters. One pass from the end gives the
// answer for all empty lines: counting each rest would take quadratic time.
empty_line s_first_bad_empty_line(std::string_view text, char delimiter, std::size_t wanted) {
  empty_line bad{std::string_view::npos, 0};
  suffix_counts behind;      // from the offset behind the current one
  suffix_counts two_behind;  // from the one behind that
  for (std::size_t at = text.size(); at-- > 0;) {
    suffix_counts here = behind;
    const char byte = text[at];
    if (byte == '\n' && (at == 0 || text[at - 1] == '\n') && behind.in(quoting::none) != wanted) {
      bad = {at, behind.in(quoting::none)};
    } else if (byte == '\\') {
      here = two_behind;
    } else if (byte == '"') {
      std::swap(here.in(quoting::none), here.in(quoting::in_double));
    } else if (byte == '\'') {
      std::swap(here.in(quoting::none), here.in(quoting::in_single));
    } else if (byte == delimiter) {
      ++here.in(quoting::none);
    }
    two_behind = behind;
    behind = here;
  }
  return bad;
}

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
      const std::size_t limit = log_is_enabled(KV_LOG_LEVEL_DEBUG) ? kNoLimit : wanted_;
      judge(s_count(text.substr(line_feed + 1), delimiter_, limit));
      if (!valid_) {
        return;
      }
      bad_ = s_first_bad_empty_line(text.substr(line_feed + 1), delimiter_, wanted_);
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
  empty_line bad_{std::string_view::npos, 0};
};

// Judges the lines of text behind the first one for N candidates.
template <std::size_t N>
void s_judge_lines(std::string_view text, std::span<candidate> candidates) {
  std::array<char, N> delimiters;
  count_list<N> wanted;
  for (std::size_t i = 0; i < N; ++i) {
    delimiters[i] = candidates[i].delimiter();
    wanted[i] = candidates[i].wanted();
  }
  line_counter<N> lines{delimiters};
  std::size_t begin = 0;
  // The line that does not tell on any candidate is the common one.
  const auto judge_line = [&](std::size_t end) {
    const std::size_t length = end - begin;
    begin = end + 1;
    if (length >= kShortLine && lines.counts() == wanted) {
      return true;
    }
    for (std::size_t i = 0; i < N; ++i) {
      if (length == 0) {
        candidates[i].judge_empty_line(text, end);
      } else if (length >= kShortLine) {
        candidates[i].judge(lines.counts()[i]);
      }
    }
    return std::ranges::any_of(candidates, &candidate::is_valid);
  };
  lines.run(text, judge_line);
  // The text behind the last line feed is a line too, but never an empty one.
  if (begin < text.size() && std::ranges::any_of(candidates, &candidate::is_valid)) {
    judge_line(text.size());
  }
}

// By the number of candidates less one.
constexpr std::array<void (*)(std::string_view, std::span<candidate>), kCandidates> kJudgeLines{
    s_judge_lines<1>, s_judge_lines<2>, s_judge_lines<3>, s_judge_lines<4>};

count_list<kCandidates> s_count_all(std::string_view line) {
  std::array<char, kCandidates> delimiters;
  std::ranges::copy(KV_CSV_DELIMITERS, delimiters.begin());
  line_counter<kCandidates> counter{delimiters};
  counter.run(line, [](std::size_t) { return true; });
  return counter.counts();
}

char s_choose_for_one_line(std::string_view line) {
  const count_list<kCandidates> counts = s_count_all(line);
  for (std::size_t i = 0; i < kCandidates; ++i) {
    if (counts[i] != 0) {
      return KV_CSV_DELIMITERS[i];
    }
  }
  return '\0';
}

}  // namespace

std::size_t s_CountDelimiters(const void* bytes, std::size_t length, char delimiter) {
  return s_count({static_cast<const char*>(bytes), length}, delimiter, kNoLimit);
}

char kv_csv_choose_delimiter(std::string_view bytes) {
  const std::size_t first_feed = bytes.find('\n');
  if (first_feed == std::string_view::npos) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_csv_command", "Buffer is one line only");
    return s_choose_for_one_line(bytes);
  }
  const count_list<kCandidates> first_line = s_count_all(bytes.substr(0, first_feed));
  std::vector<candidate> candidates;  // those that occur in the first line
  for (std::size_t i = 0; i < kCandidates; ++i) {
    if (first_line[i] != 0) {
      candidates.emplace_back(KV_CSV_DELIMITERS[i], first_line[i]);
    }
  }
  if (candidates.empty()) {
    return '\0';
  }
  kJudgeLines[candidates.size() - 1](bytes.substr(first_feed + 1), candidates);
  for (const candidate& one : candidates) {
    one.log_difference();
  }
  const auto valid = std::ranges::find_if(candidates, &candidate::is_valid);
  return valid == candidates.end() ? '\0' : valid->delimiter();
}
