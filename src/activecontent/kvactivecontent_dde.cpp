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

// Bit i is set where "dde", in any letter case, begins i bytes behind a place that has 18 bytes.
unsigned s_dde_mask(const char* place) {
  const __m128i case_bit = _mm_set1_epi8(0x20);
  const __m128i d = _mm_set1_epi8('d');
  const auto folded = [&](std::size_t offset) {
    const auto* from = reinterpret_cast<const __m128i*>(place + offset);
    return _mm_or_si128(_mm_loadu_si128(from), case_bit);
  };
  const __m128i both_d = _mm_and_si128(_mm_cmpeq_epi8(folded(0), d), _mm_cmpeq_epi8(folded(1), d));
  const __m128i third = _mm_cmpeq_epi8(folded(2), _mm_set1_epi8('e'));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(both_d, third)));
}

// Calls visit(place) wherever "dde", in any letter case, begins, until it answers false.
template <class Visit>
void s_for_each_dde(std::string_view text, Visit visit) {
  std::size_t at = 0;
  for (; at + 18 <= text.size(); at += 16) {
    for (unsigned hits = s_dde_mask(text.data() + at); hits != 0; hits &= hits - 1) {
      if (!visit(at + static_cast<std::size_t>(std::countr_zero(hits)))) {
        return;
      }
    }
  }
  for (; at + 3 <= text.size(); ++at) {
    const bool hit =
        s_fold(text[at]) == 'd' && s_fold(text[at + 1]) == 'd' && s_fold(text[at + 2]) == 'e';
    if (hit && !visit(at)) {
      return;
    }
  }
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

// One pass for the three patterns. Searches around a field word end at a word, at the latest at
// the field word before or behind, so that all of them together look at no byte more than twice.
class field_search {
 public:
  explicit field_search(std::string_view text) : text_(text) {}

  kv_dde_stretches run() {
    s_for_each_dde(text_, [this](std::size_t at) {
      judge(at);
      return !std::ranges::all_of(found_, [](const auto& stretch) { return stretch.has_value(); });
    });
    return found_;
  }

 private:
  void judge(std::size_t at) {
    constexpr std::size_t kDde = 3;
    constexpr std::size_t kLonger = 7;  // ddeauto, ddeLink
    const std::string_view rest = text_.substr(at + kDde);
    if (rest.empty()) {
      return;
    }
    if (s_is_space(rest[0])) {
      note_field(KV_DDE_SIMPLE, at, at + kDde);
    } else if (at + kLonger < text_.size() && s_is_space(text_[at + kLonger])) {
      if (text_.substr(at, kLonger) == "ddeLink") {
        note_link(at, at + kLonger);
      } else if (std::equal(rest.begin(), rest.begin() + 4, "auto",
                            [](char a, char b) { return s_fold(a) == b; })) {
        note_field(KV_DDE_AUTO, at, at + kLonger);
      }
    }
  }

  // A field word and white space, after the end of some word and before the beginning of a later
  // one.
  void note_field(kv_dde_pattern pattern, std::size_t at, std::size_t space) {
    if (found_[pattern]) {
      return;
    }
    const auto begin = s_word_begin_behind(text_, space + 1);
    const auto end = begin ? s_word_end_before(text_, at) : std::nullopt;
    if (end) {
      found_[pattern] = text_.substr(*end - 1, *begin + 1 - (*end - 1));
    }
  }

  // The element name at the beginning of a word, white space, and a word anywhere behind it.
  void note_link(std::size_t at, std::size_t space) {
    if (found_[KV_DDE_LINK] || no_word_follows_ || (at > 0 && s_is_word(text_[at - 1]))) {
      return;
    }
    const auto rest = text_.begin() + static_cast<std::ptrdiff_t>(space);
    const auto word = std::find_if(rest, text_.end(), s_is_word);
    no_word_follows_ = word == text_.end();
    if (no_word_follows_) {
      return;
    }
    const auto word_end = std::find_if_not(word, text_.end(), s_is_word);
    const std::size_t first = at > 0 ? at - 1 : 0;
    const auto last = static_cast<std::size_t>(word_end - text_.begin());
    found_[KV_DDE_LINK] = text_.substr(first, std::min(last + 1, text_.size()) - first);
  }

  std::string_view text_;
  kv_dde_stretches found_;
  bool no_word_follows_ = false;  // nor does one follow any later name
};

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
int s_check_pattern(kv_dde_pattern pattern, const kv_dde_stretches& stretches) {
  const kv_dde_rule& rule = kv_dde_rule_of(pattern);
  const auto& stretch = stretches[pattern];
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

kv_dde_stretches kv_dde_find(std::string_view text) {
  return field_search{text}.run();
}

int kv_dde_check(std::string_view text) {
  const kv_dde_stretches stretches = kv_dde_find(text);
  const int dde_simple = s_check_pattern(KV_DDE_SIMPLE, stretches);
  const int ddelink = s_check_pattern(KV_DDE_LINK, stretches);
  const int ddeauto = s_check_pattern(KV_DDE_AUTO, stretches);
  return kv_dde_outcome(ddeauto, ddelink, dde_simple);
}
