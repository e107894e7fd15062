#pragma once
// Reading JSON objects key by key, with the log lines that every reader of the protocol shares, and
// writing JSON texts. Pure helpers on json-c; any thread, each object belongs to its caller.

#include <json-c/json.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "common/kv_guard.h"

// json-c's flags for printing: compact, spaced, pretty, and without escaping "/".
inline constexpr int KV_JSON_COMPACT = JSON_C_TO_STRING_PLAIN;
inline constexpr int KV_JSON_SPACED = JSON_C_TO_STRING_SPACED;
inline constexpr int KV_JSON_PRETTY = JSON_C_TO_STRING_PRETTY;
inline constexpr int KV_JSON_PRETTY_PLAIN_SLASH =
    JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;

enum class kv_json_presence { present, absent, empty };

// Deepest nesting of a JSON text that is parsed (json-c's own default).
inline constexpr int KV_JSON_MAX_DEPTH = 32;

// Parses a whole text. False on failure, after logging "Failed to create JSON tokener" or "Failed
// to parse JSON. Errorcode: %s. JSON: \n" at ERROR under the caller's name and unit. The text null
// is a JSON text like any other: true, with the null pointer that stands for it.
[[nodiscard]] bool kv_json_parse(std::string_view text, kv_json_ptr& out, const char* function,
                                 const char* unit, int line);
// The same for callers to whom the text null is as good as none: null for both.
[[nodiscard]] kv_json_ptr kv_json_parse(std::string_view text, const char* function,
                                        const char* unit, int line);

// Reads a text, converting other JSON types as json-c does; a JSON null counts as empty. No log
// line.
[[nodiscard]] kv_json_presence kv_json_get_text(json_object* object, const char* key,
                                                std::string& out);

// The same without a copy: the text stays the object's. Null, never empty, when it is not there.
[[nodiscard]] kv_json_presence kv_json_find_text(json_object* object, const char* key,
                                                 const char*& out);

// Message of a required text that is not there: "Failed to read %s from JSON" or "Key %s found, but
// value is empty". Empty for a text that is present.
[[nodiscard]] std::string kv_json_presence_message(kv_json_presence presence, const char* key);

// Reads an integer as json-c converts it. False, with out untouched, when the key is absent. No log
// line.
[[nodiscard]] bool kv_json_get_int(json_object* object, const char* key, std::int32_t& out);
[[nodiscard]] bool kv_json_get_int64(json_object* object, const char* key, std::int64_t& out);

// Prints an object with the given json-c flags into a newly allocated text (release with free), or
// null.
[[nodiscard]] kv_text_ptr kv_json_print(json_object* object, int flags);
