#include "activecontent/markup_pattern.h"

#include <tre/tre.h>

#include <memory>

struct kv_markup_pattern {
  regex_t compiled{};
};

namespace {

// Extended syntax, no sub-match reporting; case-sensitive.
constexpr int kFlags = REG_EXTENDED | REG_NOSUB;
static_assert(kFlags == 9);

}  // namespace

const kv_markup_pattern* kv_invocation_pattern() {
  // Never freed: scans may outlast the end of main.
  static const kv_markup_pattern* const pattern = kv_markup_pattern_new("\".*javascript:.*\"");
  return pattern;
}

kv_markup_pattern* kv_markup_pattern_new(const char* text) {
  auto pattern = std::make_unique<kv_markup_pattern>();
  if (tre_regcomp(&pattern->compiled, text, kFlags) != REG_OK) {
    return nullptr;
  }
  return pattern.release();
}

void kv_markup_pattern_free(kv_markup_pattern** pattern) {
  if (pattern == nullptr || *pattern == nullptr) {
    return;
  }
  tre_regfree(&(*pattern)->compiled);
  delete *pattern;
  *pattern = nullptr;
}

kv_match_outcome kv_match_pattern(const kv_markup_pattern* pattern, const char* text,
                                  std::size_t length) {
  if (length > INT32_MAX) {
    return kv_match_outcome::failed;  // the library counts in 32 bits
  }
  switch (tre_regnexec(&pattern->compiled, text, length, 0, nullptr, 0)) {
    case REG_OK:
      return kv_match_outcome::match;
    case REG_NOMATCH:
      return kv_match_outcome::no_match;
    default:
      return kv_match_outcome::failed;
  }
}
