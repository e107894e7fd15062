#define KV_LOG_UNIT "kvactivecontent_msoffice"
#include "activecontent/kvactivecontent_dde.h"

#include <emmintrin.h>
#include <tre/tre.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

#include "logging/log-helper.h"

namespace {

constexpr std::array<kv_dde_rule, KV_DDE_PATTERN_COUNT> kRules{{
    {"dde_simple", R"(\>[^<]*[Dd][Dd][Ee]\s[^>]*\<)"},
    {"ddelink", R"(\<\s*ddeLink\s.*\>)"},
    {"ddeauto", R"(\>[^<]*[Dd][Dd][Ee][Aa][Uu][Tt][Oo]\s[^>]*\<)"},
}};

// TRE counts in 32-bit integers.
constexpr std::size_t kMostBytes = std::numeric_limits<std::int32_t>::max();

// Characters of a word, and white space, as the "C" locale has them.
constexpr bool s_is_word(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
constexpr bool s_is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
constexpr char s_fold(char c) {
  return static_cast<char>(c | 0x20);
}

// Where the next "dde", in any letter case, begins at or behind a place; the text's length if
// nowhere. The byte behind it exists.
std::size_t s_next_dde(std::string_view text, std::size_t at) {
  const __m128i case_bit = _mm_set1_epi8(0x20);
  const __m128i d = _mm_set1_epi8('d');
  const __m128i e = _mm_set1_epi8('e');
  const auto load = [&](std::size_t offset) {
    const auto* place = reinterpret_cast<const __m128i*>(text.data() + offset);
    return _mm_or_si128(_mm_loadu_si128(place), case_bit);
  };
  for (; at + 18 <= text.size(); at += 16) {
    const __m128i second = _mm_cmpeq_epi8(load(at + 1), d);
    const __m128i third = _mm_cmpeq_epi8(load(at + 2), e);
    const __m128i first_and_third = _mm_and_si128(_mm_cmpeq_epi8(load(at), d), third);
    const int hits = _mm_movemask_epi8(_mm_and_si128(first_and_third, second));
    if (hits != 0) {
      return at + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(hits)));
    }
  }
  for (; at + 3 <= text.size(); ++at) {
    if (s_fold(text[at]) == 'd' && s_fold(text[at + 1]) == 'd' && s_fold(text[at + 2]) == 'e') {
      return at;
    }
  }
  return text.size();
}

bool s_holds_folded(std::string_view text, std::size_t at, std::string_view lower_case) {
  return text.size() - at >= lower_case.size() &&
         std::equal(lower_case.begin(), lower_case.end(),
                    text.begin() + static_cast<std::ptrdiff_t>(at),
                    [](char a, char b) { return a == s_fold(b); });
}

// The last end of a word before a place, with no "<" between: where the match may begin.
std::optional<std::size_t> s_word_end_before(std::string_view text, std::size_t place) {
  for (std::size_t at = place; at-- > 0 && text[at] != '<';) {
    if (at > 0 && !s_is_word(text[at]) && s_is_word(text[at - 1])) {
      return at;
    }
  }
  return std::nullopt;
}

// The first beginning of a word at or behind a place that follows white space, with no ">" between.
std::optional<std::size_t> s_word_begin_behind(std::string_view text, std::size_t place) {
  const auto hit = std::find_if(text.begin() + static_cast<std::ptrdiff_t>(place), text.end(),
                                [](char c) { return c == '>' || s_is_word(c); });
  if (hit == text.end() || *hit == '>') {
    return std::nullopt;
  }
  return static_cast<std::size_t>(hit - text.begin());
}

// A field word and white space, after the end of some word and before the beginning of a later one.
// Between one field word and the next both searches end at a word, so that all of them together
// look at no byte more than twice.
std::optional<std::string_view> s_find_field(std::string_view text, std::string_view field) {
  for (std::size_t at = s_next_dde(text, 0); at < text.size(); at = s_next_dde(text, at + 1)) {
    const std::size_t behind = at + field.size();
    if (!s_holds_folded(text, at, field) || behind >= text.size() || !s_is_space(text[behind])) {
      continue;
    }
    const auto begin = s_word_begin_behind(text, behind + 1);
    const auto end = begin ? s_word_end_before(text, at) : std::nullopt;
    if (end) {
      return text.substr(*end - 1, *begin + 1 - (*end - 1));
    }
  }
  return std::nullopt;
}

// The element name at the beginning of a word, white space, and a word anywhere behind it.
std::optional<std::string_view> s_find_link(std::string_view text) {
  constexpr std::string_view kName = "ddeLink";
  for (std::size_t at = text.find(kName); at != std::string_view::npos;
       at = text.find(kName, at + 1)) {
    const std::size_t behind = at + kName.size();
    if ((at > 0 && s_is_word(text[at - 1])) || behind >= text.size() || !s_is_space(text[behind])) {
      continue;
    }
    const auto rest = text.begin() + static_cast<std::ptrdiff_t>(behind);
    const auto word = std::find_if(rest, text.end(), s_is_word);
    if (word == text.end()) {
      return std::nullopt;  // nor is there one behind any later name
    }
    const auto word_end = std::find_if_not(word, text.end(), s_is_word);
    const std::size_t first = at > 0 ? at - 1 : 0;
    const auto last = static_cast<std::size_t>(word_end - text.begin());
    return text.substr(first, std::min(last + 1, text.size()) - first);
  }
  return std::nullopt;
}

struct compiled_pattern {
  regex_t regex{};
  int code;
  explicit compiled_pattern(const char* pattern)
      : code(tre_regncomp(&regex, pattern, std::string_view{pattern}.size(),
                          REG_EXTENDED | REG_NOSUB)) {}
  compiled_pattern(const compiled_pattern&) = delete;
  compiled_pattern& operator=(const compiled_pattern&) = delete;
  ~compiled_pattern() {
    if (code == REG_OK) {
      tre_regfree(&regex);
    }
  }
};

// The expression itself, on the stretch where it must match.
int s_check_pattern(kv_dde_pattern pattern, std::string_view text) {
  const kv_dde_rule& rule = kv_dde_rule_of(pattern);
  const auto stretch = kv_dde_find(pattern, text);
  if (!stretch) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "s_match_regex", "no match");
    return 0;
  }
  return s_match_regex(rule.pattern, rule.name, stretch->data(), stretch->size());
}

}  // namespace

const kv_dde_rule& kv_dde_rule_of(kv_dde_pattern pattern) {
  return kRules[pattern];
}

int s_match_regex(const char* pattern, const char* pattern_name, const char* bytes,
                  std::size_t length) {
  const compiled_pattern compiled{pattern};
  if (compiled.code != REG_OK) {
    KV_LOG_ERROR("Error compiling regex %s", pattern_name);
    return -1;
  }
  const int code = length > kMostBytes
                       ? static_cast<int>(REG_ESPACE)
                       : tre_regnexec(&compiled.regex, bytes, length, 0, nullptr, 0);
  if (code == REG_OK) {
    KV_LOG_DEBUG("match found for %s", pattern_name);
    return 1;
  }
  if (code == REG_NOMATCH) {
    KV_LOG_DEBUG("no match");
    return 0;
  }
  KV_LOG_ERROR("Error %d matching regex %s", code, pattern_name);
  return -1;
}

std::optional<std::string_view> kv_dde_find(kv_dde_pattern pattern, std::string_view text) {
  switch (pattern) {
    case KV_DDE_SIMPLE:
      return s_find_field(text, "dde");
    case KV_DDE_AUTO:
      return s_find_field(text, "ddeauto");
    default:
      return s_find_link(text);
  }
}

int kv_dde_check(std::string_view text) {
  const int dde_simple = s_check_pattern(KV_DDE_SIMPLE, text);
  const int ddelink = s_check_pattern(KV_DDE_LINK, text);
  const int ddeauto = s_check_pattern(KV_DDE_AUTO, text);
  return kv_dde_outcome(ddeauto, ddelink, dde_simple);
}
