#pragma once
// Fields that make an Office document talk to another program (DDE), found in the text of its main
// part by three regular expressions. The expressions are slow; an exact search that takes a few
// instructions per byte says first whether one can match. Pure save for the trace; any thread that
// is in the "C" locale.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

enum kv_dde_pattern : std::size_t { KV_DDE_SIMPLE, KV_DDE_LINK, KV_DDE_AUTO, KV_DDE_PATTERN_COUNT };

struct kv_dde_rule {
  const char* name;
  const char* pattern;  // POSIX extended; \> and \< are the ends and beginnings of words
};
[[nodiscard]] const kv_dde_rule& kv_dde_rule_of(kv_dde_pattern pattern);

// 1 when the expression matches somewhere in the bytes, 0 when nowhere, -1 when it does not compile
// or the matcher fails. Behind the bytes there is at least one that may be read.
[[nodiscard]] int s_match_regex(const char* pattern, const char* pattern_name, const char* bytes,
                                std::size_t length);

// For each pattern a stretch of the text that holds a match together with the characters that
// decide on its word boundaries; none when the pattern matches nowhere.
using kv_dde_stretches = std::array<std::optional<std::string_view>, KV_DDE_PATTERN_COUNT>;
// Exact, and linear in the text.
[[nodiscard]] kv_dde_stretches kv_dde_find(std::string_view text);

// What the results of the three patterns come to: the first that is not 0, in the order ddeauto,
// ddelink, dde_simple. A failure so hides the patterns behind it.
[[nodiscard]] constexpr int kv_dde_outcome(int ddeauto, int ddelink, int dde_simple) {
  return ddeauto != 0 ? ddeauto : ddelink != 0 ? ddelink : dde_simple;
}

// 1 when the text holds a DDE field.
[[nodiscard]] int kv_dde_check(std::string_view text);
