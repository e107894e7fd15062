#pragma once
// The tests of the markup scan one by one: decoding, tag extraction, and what is looked for in a
// tag. kvactivecontent_html (kvactivecontent_detectors.h) is made of the same parts but holds text
// and positions together; these functions take texts alone. No state, any thread.

#include <cstddef>
#include <cstdint>

#include "activecontent/kvactivecontent_detectors.h"
#include "activecontent/markup_pattern.h"

// Quick-check flags: what the whole document contains, and so which tests its tags need.
enum kv_markup_flag : std::uint8_t {
  KV_MARKUP_JAVASCRIPT = 1,
  KV_MARKUP_SRCDOC = 2,
  KV_MARKUP_DATA_URL = 4,
  KV_MARKUP_EVENT_HANDLER = 8,
  KV_MARKUP_BANNED_TAG = 16,
};

// The tag buffer's size at first, and its growth.
inline constexpr std::size_t KV_TAG_BUFFER_STEP = 65536;

// Removes the NUL bytes within the length, each logged at WARN; returns what is left of the length.
std::size_t kv_activecontent_removeNullChars(char* text, std::size_t length);

// Decodes the character references of a zero-terminated text into output (as large as the text), or
// in place when output is null. Returns the new length, which may count zero bytes.
std::size_t kvactivecontent_decode_html_entities_utf8(char* text, char* output);

// Space, TAB, LF, FF, CR, and the slash, which separates like a blank.
[[nodiscard]] bool kv_IsHTMLWhiteSpace(char character);
// True when the word of this length at the position of a zero-terminated text stands alone.
[[nodiscard]] bool kv_isIsolated(const char* text, std::size_t position, std::size_t length);

// 1 if a name of HTMLEventHandlers occurs anywhere, in any letter case; 0 if none does.
[[nodiscard]] int kvactivecontent_includesEventHandlers(const char* text, std::size_t length);
// KV_RESULT_ACTIVE_CONTENT with its reason when a name's first occurrence in the tag is isolated.
[[nodiscard]] std::int32_t kvactivecontent_IsHTMLEventHandler(const char* tag, char* reason);

// Copies the tag without the contents of its double-quoted strings, zero-terminated; output holds
// length + 1 bytes. Returns the length of the copy.
std::size_t kvactivecontent_removeQuotedText(const char* text, std::size_t length, char* output);

// Finds the next tag from the position on and leaves it, zero-terminated, in the buffer *tag of
// *size bytes (from the C allocator; grown when needed). 1, or 0 at the end of the text, or -1; a
// failed growth frees the buffer.
[[nodiscard]] int kvactivecontent_getNextTag(const char* text, std::size_t length,
                                             std::size_t* position, char** tag,
                                             std::size_t* tag_length, std::size_t* size);

// The per-tag tests that the flags ask for. The list of banned words ends with an empty word.
[[nodiscard]] std::int32_t analyseTag(const char* tag, scanobject* job,
                                      kv_scan_result_t* consolidated,
                                      const char* const* banned_tags, char* reason, char* error,
                                      std::uint8_t flag, std::int64_t time_left_ms,
                                      const kv_markup_pattern* pattern,
                                      std::uint8_t quick_check_flags);

// Quick checks over the whole text, then its tags one by one.
[[nodiscard]] std::int32_t kvactivecontent_html_CheckTags(
    scanobject* job, const char* text, std::size_t length, kv_scan_result_t* consolidated,
    const char* const* banned_tags, char* reason, char* error, std::uint8_t flag,
    std::int64_t time_left_ms);
