#include "worker/kv_worker_messages.h"

#include <cstdarg>
#include <cstdio>

#include "worker/kv_worker.h"

namespace {

__attribute__((format(printf, 1, 2))) std::string s_print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

// A worker that was given no secret sends an empty one.
const char* s_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

std::string kv_register_text(kv_registration which, const char* worker_name, int primary,
                             const char* secret) {
  if (which == kv_registration::first) {
    return s_print(
        "{ \"Command\": %d , \"worker-name\": \"%s\", \"service-name\": \"%s\", \"Primary\": %d, "
        "\"Secret\": \"%s\"}",
        KV_COMMAND_REGISTER, worker_name, KV_SERVICE_NAME, primary, secret);
  }
  return s_print(
      "{ \"Command\": %d ,\"worker-name\": \"%s\", \"service-name\": \"%s\", \"Primary\": %d, "
      "\"Secret\": \"%s\"}",
      KV_COMMAND_REGISTER, worker_name, KV_SERVICE_NAME, primary, secret);
}

std::string kv_ready_text(const char* secret, const char* worker_name, const char* own_secret) {
  return s_print(
      "{ \"Command\" : %d , \"Secret\":\"%s\", \"Shutdown\":\"%s\", \"Shutdown-Secret\":\"%s\"}",
      KV_COMMAND_READY, s_or_empty(secret), worker_name, own_secret);
}

std::string kv_shutdown_text(const char* secret) {
  return s_print("{ \"Command\" : %d , \"Secret\":\"%s\"}", KV_COMMAND_SHUTDOWN,
                 s_or_empty(secret));
}

std::string kv_notice_text(std::int32_t command, const char* worker_name, int primary) {
  return s_print(
      "{ \"Command\" : %d , \"worker-name\" : \"%s\", \"service-name\" : \"%s\", \"Primary\" : %d "
      "}",
      command, worker_name, KV_SERVICE_NAME, primary);
}
