#include "common/kv_json.h"

#include <climits>
#include <cstring>
#include <utility>

#include "logging/log-helper.h"

namespace {

// Longest text whose tokener is used again; a tokener keeps the room of the longest string it saw.
constexpr std::size_t kLongestOfKeptTokener = 65'536;

// Each thread keeps a tokener: a new one for each text costs a twentieth of a short request. Null
// when there is no memory for it.
kv_json_tokener_ptr& s_tokener() {
  thread_local kv_json_tokener_ptr tokener;
  if (tokener) {
    json_tokener_reset(tokener.get());
  } else {
    tokener.reset(json_tokener_new_ex(KV_JSON_MAX_DEPTH));
  }
  return tokener;
}

json_tokener_error s_parse(json_tokener* tokener, std::string_view text, kv_json_ptr& out) {
  if (text.size() >= INT_MAX) {
    return json_tokener_error_size;
  }
  out.reset(json_tokener_parse_ex(tokener, text.data(), static_cast<int>(text.size())));
  if (json_tokener_get_error(tokener) == json_tokener_continue) {
    // The text may be a whole document that only lacks its end mark (a bare number), or be cut
    // short.
    out.reset(json_tokener_parse_ex(tokener, "", 1));
  }
  return json_tokener_get_error(tokener);
}

}  // namespace

bool kv_json_parse(std::string_view text, kv_json_ptr& out, const char* function, const char* unit,
                   int line) {
  out.reset();
  kv_json_tokener_ptr& tokener = s_tokener();
  if (!tokener) {
    log_log(KV_LOG_LEVEL_ERROR, function, unit, line, "Failed to create JSON tokener");
    return false;
  }
  const json_tokener_error error = s_parse(tokener.get(), text, out);
  if (text.size() > kLongestOfKeptTokener) {
    tokener.reset();
  }
  if (error != json_tokener_success) {
    log_log(KV_LOG_LEVEL_ERROR, function, unit, line,
            "Failed to parse JSON. Errorcode: %s. JSON: \n", json_tokener_error_desc(error));
    return false;
  }
  return true;
}

kv_json_ptr kv_json_parse(std::string_view text, const char* function, const char* unit, int line) {
  kv_json_ptr object;
  return kv_json_parse(text, object, function, unit, line) ? std::move(object) : nullptr;
}

kv_json_presence kv_json_get_text(json_object* object, const char* key, std::string& out) {
  const char* text = nullptr;
  const kv_json_presence presence = kv_json_find_text(object, key, text);
  if (presence == kv_json_presence::present) {
    out.assign(text);
  }
  return presence;
}

kv_json_presence kv_json_find_text(json_object* object, const char* key, const char*& out) {
  out = nullptr;
  json_object* value = nullptr;
  if (!json_object_object_get_ex(object, key, &value)) {
    return kv_json_presence::absent;
  }
  const char* text = json_object_get_string(value);
  if (text == nullptr || *text == '\0') {
    return kv_json_presence::empty;
  }
  out = text;
  return kv_json_presence::present;
}

std::string kv_json_presence_message(kv_json_presence presence, const char* key) {
  switch (presence) {
    case kv_json_presence::absent:
      return std::string("Failed to read ") + key + " from JSON";
    case kv_json_presence::empty:
      return std::string("Key ") + key + " found, but value is empty";
    case kv_json_presence::present:
      break;
  }
  return {};
}

bool kv_json_get_int(json_object* object, const char* key, std::int32_t& out) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(object, key, &value)) {
    return false;
  }
  out = json_object_get_int(value);
  return true;
}

bool kv_json_get_int64(json_object* object, const char* key, std::int64_t& out) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(object, key, &value)) {
    return false;
  }
  out = json_object_get_int64(value);
  return true;
}

kv_text_ptr kv_json_print(json_object* object, int flags) {
  std::size_t length = 0;
  const char* text = json_object_to_json_string_length(object, flags, &length);
  return kv_text_ptr{text == nullptr ? nullptr : strndup(text, length)};
}
