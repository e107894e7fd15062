#include "common/kvhlp-string.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>

#include "common/kv_guard.h"
#include "logging/log-helper.h"

namespace {

constexpr std::string_view kAlphabet =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::size_t kNormalizedSize = 1024;

constexpr char s_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool s_is_letter(char c) {
  return s_lower(c) >= 'a' && s_lower(c) <= 'z';
}

constexpr bool s_is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// One text of a wildcard match: reads its end as zero, wherever that comes from.
class wildcard_reader {
 public:
  wildcard_reader(const char* text, int case_sensitive, char terminator)
      : text_(text), terminator_(terminator), fold_(case_sensitive == 0) {}

  [[nodiscard]] bool at_end(std::size_t i) const {
    return text_[i] == '\0' || text_[i] == terminator_;
  }
  [[nodiscard]] char at(std::size_t i) const { return fold_ ? s_lower(text_[i]) : text_[i]; }

 private:
  const char* text_;
  char terminator_;
  bool fold_;
};

// The bytes at the front of haystack are the pattern's, spaced by step.
bool s_matches_at(std::span<const std::uint8_t> haystack, std::span<const std::uint8_t> pattern,
                  std::size_t step) {
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (haystack[i * step] != pattern[i]) {
      return false;
    }
  }
  return true;
}

}  // namespace

char* kvhlp_TrimWhitespace(char* text) {
  if (text == nullptr || *text == '\0') {
    return text;
  }
  const char* first = text;
  const char* last = text + std::strlen(text) - 1;
  while (first < last && s_is_space(*first)) {
    ++first;
  }
  while (last > first && s_is_space(*last)) {
    --last;
  }
  const auto length = static_cast<std::size_t>(last - first) + 1;
  std::memmove(text, first, length);
  text[length] = '\0';
  return text;
}

int kvhlp_StringEndsWith(const char* text, const char* suffix) {
  return text != nullptr && suffix != nullptr && std::string_view(text).ends_with(suffix) ? 1 : 0;
}

int kvhlp_StringIsNumber(const char* text) {
  if (text == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  return std::ranges::any_of(std::string_view(text), s_is_letter) ? 0 : 1;
}

std::size_t kvhlp_GetQuotedText(const char* text, std::size_t length, char* out,
                                const char** end_out) {
  if (text == nullptr || out == nullptr || end_out == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return 0;
  }
  const std::string_view view(text, length);
  *end_out = text + length;
  const std::size_t opening = view.find('"');
  if (opening == std::string_view::npos) {
    return 0;
  }
  std::size_t closing = view.find('"', opening + 1);
  while (closing != std::string_view::npos && view[closing - 1] == '\\') {
    closing = view.find('"', closing + 1);
  }
  if (closing == std::string_view::npos) {
    KV_LOG_DEBUG("no quoted content found");
    return 0;
  }
  const std::size_t copied = view.copy(out, closing - opening - 1, opening + 1);
  out[copied] = '\0';
  *end_out = text + closing + 1;
  return copied + 1;
}

const std::uint8_t* kvhlp_FindBinaryPattern(const std::uint8_t* buffer, std::size_t length,
                                            const std::uint8_t* pattern, std::size_t pattern_length,
                                            std::size_t gap) {
  if (buffer == nullptr || pattern == nullptr || pattern_length == 0 || length == 0 ||
      gap >= length || (pattern_length - 1) > (length - 1) / (gap + 1)) {
    return nullptr;
  }
  const std::size_t reach = (pattern_length - 1) * (gap + 1) + 1;
  std::span<const std::uint8_t> rest(buffer, length);
  while (rest.size() >= reach) {
    const void* const hit = std::memchr(rest.data(), pattern[0], rest.size() - reach + 1);
    if (hit == nullptr) {
      return nullptr;
    }
    const auto* const start = static_cast<const std::uint8_t*>(hit);
    rest = rest.subspan(static_cast<std::size_t>(start - rest.data()));
    if (s_matches_at(rest, {pattern, pattern_length}, gap + 1)) {
      KV_LOG_DEBUG("_FindBinaryPattern(): Got Pattern Match");
      return start + reach;
    }
    rest = rest.subspan(1);
  }
  return nullptr;
}

char* kvhlp_normalize_string(const char* text) {
  thread_local char normalized[kNormalizedSize];
  if (text == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return nullptr;
  }
  const std::size_t length = strnlen(text, sizeof normalized - 1);
  std::transform(text, text + length, normalized, s_lower);
  normalized[length] = '\0';
  kvhlp_TrimWhitespace(normalized);
  KV_LOG_TRACE("Normalized string \"%s\"", normalized);
  return normalized;
}

void kvhlp_remove_linebreak(char* text) {
  if (text != nullptr) {
    text[std::strcspn(text, "\n")] = '\0';
  }
}

void kvhlp_replace_all_linebreaks(char* text, char c) {
  if (text != nullptr) {
    std::replace(text, text + std::strlen(text), '\n', c);
  }
}

void kvhlp_rand_str(char* buffer, std::size_t n) {
  if (buffer == nullptr) {
    return;
  }
  std::srand(static_cast<unsigned int>(std::clock()));
  for (std::size_t i = 0; i < n; ++i) {
    buffer[i] = kAlphabet[static_cast<std::size_t>(std::rand()) % kAlphabet.size()];
  }
  buffer[n] = '\0';
}

int kvhlp_escape_quotes_inplace(char** text) {
  if (text == nullptr || *text == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  const std::string_view old(*text);
  const auto quotes = static_cast<std::size_t>(std::ranges::count(old, '"'));
  kv_text_ptr escaped{static_cast<char*>(std::malloc(old.size() + quotes + 1))};
  if (!escaped) {
    KV_LOG_ERROR("Failed to allocate memory for %s", "escaped text");
    return -1;
  }
  char* out = escaped.get();
  for (const char c : old) {
    if (c == '"') {
      *out++ = '\\';
    }
    *out++ = c;
  }
  *out = '\0';
  const kv_text_ptr replaced{*text};
  *text = escaped.release();
  return 0;
}

int kvhlp_WildcardTextMatch(const char* text, const char* pattern, int case_sensitive,
                            char terminator) {
  if (text == nullptr) {
    KV_LOG_ERROR("Invalid parameter pTameText (NULL)");
    return 0;
  }
  if (pattern == nullptr) {
    KV_LOG_ERROR("Invalid parameter pWildText (NULL)");
    return 0;
  }
  const wildcard_reader tame(text, case_sensitive, terminator);
  const wildcard_reader wild(pattern, case_sensitive, terminator);
  std::size_t t = 0;
  std::size_t w = 0;
  // Where to go on after a mismatch: behind the last "*", which then takes one character more.
  bool starred = false;
  std::size_t resume_t = 0;
  std::size_t resume_w = 0;
  while (!tame.at_end(t)) {
    if (!wild.at_end(w) && wild.at(w) == '*') {
      starred = true;
      resume_t = t;
      resume_w = ++w;
    } else if (!wild.at_end(w) && (wild.at(w) == '?' || wild.at(w) == tame.at(t))) {
      ++t;
      ++w;
    } else if (starred) {
      t = ++resume_t;
      w = resume_w;
    } else {
      return 0;
    }
  }
  while (!wild.at_end(w) && wild.at(w) == '*') {
    ++w;
  }
  return wild.at_end(w) ? 1 : 0;
}
