#pragma once
// Replies. The setters write a reply's JSON text into the json member of a message, whose address
// the caller passes. They do not free a text that is already there. Any thread.

#include <json-c/json.h>

#include <cstdint>

// {"ReturnCode": 0}. Returns 0, or -1 when the text cannot be allocated.
[[nodiscard]] int kv_reply_set_OK(char** json_txt);
// {"ReturnCode": code}
[[nodiscard]] int kv_reply_set_return_code(char** json_txt, std::int32_t code);
// {"ReturnCode": code, "Error": "text"}; the text goes in as it stands, without JSON escaping.
[[nodiscard]] int kv_reply_set_ERROR(char** json_txt, std::int32_t code, const char* error);

// Reads the "ReturnCode" of a parsed reply. False, with code untouched, when there is none or when
// it is no integer: a text or null that the library converts to 0 must not pass for success. No log
// line.
[[nodiscard]] bool kv_reply_get_return_code(json_object* reply, std::int32_t& code);
