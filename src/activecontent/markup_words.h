#pragma once
// When a word in markup stands alone. Pure functions; any thread.

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "activecontent/markup_literals.h"

[[nodiscard]] constexpr bool kv_is_html_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == '/';
}

[[nodiscard]] constexpr bool kv_is_quote(char c) {
  return c == '"' || c == '\'';
}

[[nodiscard]] constexpr bool kv_may_precede_word(char c) {
  return kv_is_html_space(c) || kv_is_quote(c) || c == '=';
}
[[nodiscard]] constexpr bool kv_may_follow_word(char c) {
  return kv_may_precede_word(c) || c == ':';
}

[[nodiscard]] constexpr bool kv_is_isolated(std::string_view text, std::size_t position,
                                            std::size_t length) {
  const std::size_t behind = position + length;
  return (position == 0 || kv_may_precede_word(text[position - 1])) &&
         (behind >= text.size() || kv_may_follow_word(text[behind]));
}

// The word's first place in the text at or behind from, in any letter case, or npos. For texts and
// words that the matcher does not know.
[[nodiscard]] constexpr std::size_t kv_find_folded(std::string_view text, std::string_view word,
                                                   std::size_t from = 0) {
  const std::string_view rest = text.substr(std::min(from, text.size()));
  const auto* const found =
      std::search(rest.begin(), rest.end(), word.begin(), word.end(),
                  [](char left, char right) { return kv_fold(left) == kv_fold(right); });
  return found == rest.end() ? std::string_view::npos
                             : static_cast<std::size_t>(found - text.begin());
}
