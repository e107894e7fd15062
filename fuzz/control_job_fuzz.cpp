// A control job's text: without its secret it neither ends the worker nor hands it over, and what
// is answered is one of the three replies that there are.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "activecontent/kvactivecontent_service.h"
#include "worker/kv_worker_config.h"
#include "worker/kv_worker_control.h"

namespace {

// Longer than what an input may hold by chance, with a byte that no JSON text can hold.
constexpr const char* kSecret = "\xffs3cret-of-this-worker-only\xff";

kv_worker_thread_args_t* s_make_worker() {
  kv_worker_thread_args_t* shared = kv_worker_thread_args_new();
  shared->config = kv_worker_config_new();
  shared->config->update_thread = kv_update_thread_args_new();
  shared->config->secret = strdup(kSecret);
  shared->config->activation_secret = strdup(kSecret);
  char error[KV_ERROR_TEXT_SIZE] = "";
  if (kv_worker_global_init(shared->config, shared, error) != 0) {
    std::abort();
  }
  return shared;
}

bool s_is_known_reply(const char* json) {
  return json == nullptr || std::strcmp(json, "{\"ReturnCode\": 0}") == 0 ||
         std::strcmp(json, "{\"ReturnCode\": -1000}") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static kv_worker_thread_args_t* const shared = s_make_worker();
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find(kSecret) != std::string::npos) {
    return 0;
  }
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->request->json = text.c_str();
  const std::int32_t rc = kv_worker_control_request_handler(shared, pair.get());
  if ((rc != 0 && rc != -1) || !s_is_known_reply(pair->reply->json) || kv_is_killed() ||
      shared->config->update_thread->update_state != KV_UPDATE_IDLE) {
    std::abort();
  }
  return 0;
}
