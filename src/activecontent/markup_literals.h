#pragma once
// Every literal that the markup scan looks for, as one list, so that a single pass over a text
// finds them all. Constant tables; any thread.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "activecontent/kvactivecontent_html_xml_svg_eventhandlers.h"

// ASCII letter case only: other bytes stand for themselves, whatever the locale.
[[nodiscard]] constexpr char kv_fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[nodiscard]] constexpr bool kv_equal_folded(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, kv_fold, kv_fold);
}

// Words that must not stand isolated in a tag, in the order in which a tag is tested for them.
inline constexpr std::array<std::string_view, 7> kBannedTags{
    "script", "object", "javascript", "xsl", "applet", "embed", "?php"};

namespace markup_literals {

inline constexpr std::size_t kLongest = 24;

struct literal {
  std::array<char, kLongest> folded{};
  std::uint8_t length = 0;
  std::uint8_t table_index = 0;  // of a handler: its first row in HTMLEventHandlers

  [[nodiscard]] constexpr std::string_view text() const { return {folded.data(), length}; }
};

constexpr literal make(std::string_view text, std::size_t table_index = 0) {
  literal result;
  std::ranges::transform(text, result.folded.begin(), kv_fold);
  result.length = static_cast<std::uint8_t>(text.size());
  result.table_index = static_cast<std::uint8_t>(table_index);
  return result;
}

constexpr bool is_repeated(std::size_t index) {
  for (std::size_t i = 0; i < index; ++i) {
    if (HTMLEventHandlers[i] == HTMLEventHandlers[index]) {
      return true;
    }
  }
  return false;
}

inline constexpr std::size_t kHandlerCount = [] {
  std::size_t count = 0;
  for (std::size_t i = 0; i + 1 < HTMLEventHandlers.size(); ++i) {
    count += is_repeated(i) ? 0 : 1;
  }
  return count;
}();

// A literal's number is its place in kAll: first the handlers in table order, then the banned
// words in their order, then the markers.
using id = std::uint8_t;
inline constexpr id kFirstBanned = kHandlerCount;
inline constexpr id kJavascript = kFirstBanned + 2;
inline constexpr id kSrcdoc = kFirstBanned + kBannedTags.size();
inline constexpr id kData = kSrcdoc + 1;
inline constexpr id kRegistration = kData + 1;
inline constexpr std::size_t kCount = kRegistration + 1;
inline constexpr id kNone = 255;

inline constexpr std::array<literal, kCount> kAll = [] {
  std::array<literal, kCount> all{};
  std::size_t next = 0;
  for (std::size_t i = 0; i + 1 < HTMLEventHandlers.size(); ++i) {
    if (!is_repeated(i)) {
      all[next++] = make(HTMLEventHandlers[i], i);
    }
  }
  for (const std::string_view word : kBannedTags) {
    all[next++] = make(word);
  }
  all[kSrcdoc] = make("srcdoc");
  all[kData] = make("data:");
  all[kRegistration] = make(".addEventListener(");
  return all;
}();
static_assert(kAll[kJavascript].text() == "javascript");

[[nodiscard]] constexpr bool is_handler(id number) {
  return number < kHandlerCount;
}
[[nodiscard]] constexpr bool is_banned(id number) {
  return number >= kFirstBanned && number < kFirstBanned + kBannedTags.size();
}

// Of each literal the longest other one that it begins with: where it occurs, that one does too.
inline constexpr std::array<id, kCount> kPrefix = [] {
  std::array<id, kCount> prefix{};
  for (std::size_t i = 0; i < kCount; ++i) {
    prefix[i] = kNone;
    for (std::size_t j = 0; j < kCount; ++j) {
      if (i != j && kAll[i].text().starts_with(kAll[j].text()) &&
          (prefix[i] == kNone || kAll[j].length > kAll[prefix[i]].length)) {
        prefix[i] = static_cast<id>(j);
      }
    }
  }
  return prefix;
}();

}  // namespace markup_literals

// Which literals occur in a text.
class kv_literal_presence {
 public:
  constexpr void add(markup_literals::id number) {
    for (; number != markup_literals::kNone; number = markup_literals::kPrefix[number]) {
      words_[number / 64] |= std::uint64_t{1} << (number % 64);
    }
  }
  [[nodiscard]] constexpr bool has(markup_literals::id number) const {
    return (words_[number / 64] >> (number % 64) & 1) != 0;
  }
  // Marks the literal alone; true when it was not marked before.
  [[nodiscard]] constexpr bool add_first(markup_literals::id number) {
    const bool first = !has(number);
    words_[number / 64] |= std::uint64_t{1} << (number % 64);
    return first;
  }
  [[nodiscard]] constexpr bool has_handler() const {
    static_assert(markup_literals::kHandlerCount > 64 && markup_literals::kHandlerCount < 128);
    constexpr std::uint64_t rest = (std::uint64_t{1} << (markup_literals::kHandlerCount - 64)) - 1;
    return (words_[0] | (words_[1] & rest)) != 0;
  }

 private:
  std::array<std::uint64_t, 2> words_{};
};
static_assert(markup_literals::kCount <= 128);

// One occurrence, packed so that a dense text costs no more than a few times its own size.
class kv_literal_hit {
 public:
  kv_literal_hit() = default;
  kv_literal_hit(std::size_t position, markup_literals::id number)
      : packed_(static_cast<std::uint64_t>(position) << 8 | number) {}
  [[nodiscard]] std::size_t position() const { return packed_ >> 8; }
  [[nodiscard]] markup_literals::id number() const {
    return static_cast<markup_literals::id>(packed_ & 0xFF);
  }

 private:
  std::uint64_t packed_ = 0;
};
