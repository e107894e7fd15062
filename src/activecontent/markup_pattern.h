#pragma once
// The pattern for a javascript invocation in a quoted attribute value. Compiled once per process
// and used by all threads; matching does not change it. The pattern library's header stays out of
// this one, since it cannot stand beside the system's own.

#include <cstddef>
#include <cstdint>

struct kv_markup_pattern;

enum class kv_match_outcome : std::uint8_t { match, no_match, failed };

// The process's pattern; null when it could not be compiled.
[[nodiscard]] const kv_markup_pattern* kv_invocation_pattern();
// A pattern of its own; null when it cannot be compiled.
[[nodiscard]] kv_markup_pattern* kv_markup_pattern_new(const char* text);
void kv_markup_pattern_free(kv_markup_pattern** pattern);

[[nodiscard]] kv_match_outcome kv_match_pattern(const kv_markup_pattern* pattern, const char* text,
                                                std::size_t length);
