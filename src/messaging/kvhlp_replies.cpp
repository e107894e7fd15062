#include "messaging/kvhlp_replies.h"

#include <cstdarg>
#include <cstdio>

#include "logging/log-helper.h"

namespace {

__attribute__((format(printf, 2, 3))) int s_set_text(char** json_txt, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int printed = vasprintf(json_txt, format, arguments);
  va_end(arguments);
  if (printed < 0) {
    *json_txt = nullptr;
    KV_LOG_ERROR("Failed to allocate %s", "*json_txt");
    return -1;
  }
  return 0;
}

}  // namespace

int kv_reply_set_OK(char** json_txt) {
  return kv_reply_set_return_code(json_txt, 0);
}

int kv_reply_set_return_code(char** json_txt, std::int32_t code) {
  return s_set_text(json_txt, R"({"ReturnCode": %d})", code);
}

int kv_reply_set_ERROR(char** json_txt, std::int32_t code, const char* error) {
  return s_set_text(json_txt, R"({"ReturnCode": %d, "Error": "%s"})", code, error);
}

bool kv_reply_get_return_code(json_object* reply, std::int32_t& code) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(reply, "ReturnCode", &value) ||
      !json_object_is_type(value, json_type_int)) {
    return false;
  }
  code = json_object_get_int(value);
  return true;
}
