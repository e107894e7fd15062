#pragma once
// Decodes character references ("&lt;", "&#60;", "&#x3c;") to UTF-8 in one pass: what a reference
// decodes to is not read again. A reference never grows. Pure functions; any thread.

#include <cstddef>
#include <string_view>

// Where the first reference that decodes begins, or npos: a text without one needs no copy.
[[nodiscard]] std::size_t kv_find_reference(std::string_view text);

// Writes the decoded text to output, which has room for all of the text and may be the text itself.
// Returns the new length.
std::size_t kv_decode_references(std::string_view text, char* output);
