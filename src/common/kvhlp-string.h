#pragma once
// Small text helpers. Character classes are those of the "C" locale, ASCII only. Any thread; a
// static buffer belongs to the calling thread and holds until its next call.

#include <cstddef>
#include <cstdint>

// In place: removes leading and trailing white space, but never the last character that is left: a
// text of blanks becomes one blank. Returns the text.
char* kvhlp_TrimWhitespace(char* text);

[[nodiscard]] int kvhlp_StringEndsWith(const char* text, const char* suffix);  // 1 or 0

// 1 when the text holds no letter (signs, blanks and punctuation pass), else 0; -1 for null.
[[nodiscard]] int kvhlp_StringIsNumber(const char* text);

// Copies what stands between the first double quote and the next one that has no backslash before
// it, and terminates it; out holds length bytes at least. end_out is set behind the closing quote,
// or to the text's end. Returns the copied length + 1, or 0 when there is no complete quoted part.
[[nodiscard]] std::size_t kvhlp_GetQuotedText(const char* text, std::size_t length, char* out,
                                              const char** end_out);

// Searches the pattern's bytes spaced gap + 1 bytes apart (1: a text in UTF-16LE). Returns the
// position just behind the last byte that matched, or null.
[[nodiscard]] const std::uint8_t* kvhlp_FindBinaryPattern(const std::uint8_t* buffer,
                                                          std::size_t length,
                                                          const std::uint8_t* pattern,
                                                          std::size_t pattern_length,
                                                          std::size_t gap);

// The first 1023 characters in lower case and trimmed, in a static buffer. Null for null.
[[nodiscard]] char* kvhlp_normalize_string(const char* text);

void kvhlp_remove_linebreak(char* text);                // cuts at the first "\n"
void kvhlp_replace_all_linebreaks(char* text, char c);  // every "\n" becomes c

// Writes n characters and a terminating zero. Reseeds with the processor clock on every call, so
// results repeat from start to start: nothing that guards or names anything may rest on it, for
// that there is kv_secure_random_text.
void kvhlp_rand_str(char* buffer, std::size_t n);

// Replaces a text from the C allocator by one in which every double quote has a backslash before
// it, and frees the old one. 0, or -1 with the text as it was.
[[nodiscard]] int kvhlp_escape_quotes_inplace(char** text);

// Matches "*" (any run of characters) and "?" (exactly one). Both texts end at a zero byte or at
// the terminator. Without case sensitivity A to Z count as a to z. 1 for a match, else 0.
[[nodiscard]] int kvhlp_WildcardTextMatch(const char* text, const char* pattern, int case_sensitive,
                                          char terminator);
