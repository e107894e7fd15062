#include "worker/kv_worker_client_request.h"

#include <cinttypes>
#include <string>

#include "activecontent/kvactivecontent_service.h"
#include "common/kv_json.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"
#include "messaging/kvhlp_replies.h"
#include "worker/kv_worker.h"

namespace {

// All lines of a request stand under the name of its handler.
constexpr const char* kHandler = "kv_worker_client_request_handler";

// Whether the request's line of its duration is written.
enum class timing { written, left_out };

struct request_context {
  kv_const_request_reply_t& pair;
  json_object* request;
  worker_thread_parameters& thread;
};

// The length told in the request must be the length received: neither side's word alone decides
// what is scanned.
bool s_length_fits(const request_context& context) {
  const kv_const_message_t& message = *context.pair.request;
  if (message.data == nullptr || message.data_size == 0) {
    return true;
  }
  std::int64_t told = 0;
  if (!kv_json_get_int64(context.request, "ObjectLen", told)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kHandler, "Object %s not found", "ObjectLen");
  }
  if (told < 0 || static_cast<std::uint64_t>(told) != message.data_size) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, kHandler, "Data length inconsistency");
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, kHandler,
              "ObjectLen (from request_json) is %" PRId64 ", scandatalen (from MQ) is %" PRIu64,
              told, message.data_size);
    return false;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kHandler, "Got %" PRIu64 " bytes data to scan at %p",
            message.data_size, message.data);
  return true;
}

void s_scan(const request_context& context, const std::string& event_id) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Handling scan request for EventID %s", event_id.c_str());
  context.thread.current_status.store(KV_THREAD_BUSY, std::memory_order_relaxed);
  const std::int32_t rc = kv_worker_handle_scan_request(
      context.thread.shared->config, &context.pair, context.request, &context.thread);
  context.thread.current_status.store(KV_THREAD_IDLE, std::memory_order_relaxed);
  if (rc != 0) {
    const char* reply = context.pair.reply->json;
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Failed to handle scan request. rc=%d, %s", rc,
              reply == nullptr ? "no reply JSON text" : reply);
    return;
  }
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "Request handled successfully");
}

std::int32_t s_handle_scan(const request_context& context) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "SCAN request received");
  if (!s_length_fits(context)) {
    return 0;
  }
  std::string event_id;
  const kv_json_presence presence = kv_json_get_text(context.request, "EventID", event_id);
  if (presence != kv_json_presence::present) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "%s",
              kv_json_presence_message(presence, "EventID").c_str());
    return -1;
  }
  s_scan(context, event_id);
  return 0;
}

std::int32_t s_handle_service_init(const request_context& context) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "SERVICE_INITIALIZE request received");
  context.pair.reply->json =
      kv_worker_handle_service_init_request(context.request, &context.thread);
  if (context.pair.reply->json == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Failed to get service info");
  }
  return 0;
}

std::int32_t s_dispatch(const request_context& context, timing& duration) {
  std::int32_t command = 0;
  if (!kv_json_get_int(context.request, "Command", command)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kHandler, "Object %s not found", "Command");
    return 0;
  }
  switch (command) {
    case KV_COMMAND_PING:
      duration = timing::left_out;
      return kv_reply_set_OK(&context.pair.reply->json);
    case KV_COMMAND_SERVICE_INITIALIZE:
      return s_handle_service_init(context);
    case KV_COMMAND_SCAN:
    case KV_COMMAND_SCAN_RECURSIVE:
      return s_handle_scan(context);
    default:
      return 0;
  }
}

std::int32_t s_handle(kv_const_request_reply_t& pair, worker_thread_parameters& thread,
                      timing& duration) {
  if (pair.request == nullptr || pair.request->json == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Invalid request");
    duration = timing::left_out;
    return -1;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kHandler, "request (raw): %s", pair.request->json);
  kv_json_ptr request;  // stays null for the text null, which has no keys
  if (!kv_json_parse(pair.request->json, request, kHandler, KV_LOG_UNIT, __LINE__)) {
    return -1;
  }
  return s_dispatch({pair, request.get(), thread}, duration);
}

}  // namespace

std::int32_t kv_worker_client_request_handler(void* thread_parameters,
                                              kv_const_request_reply_t* pair) {
  std::int32_t rc = 0;
  KV_TRACE_SCOPE(rc);
  const std::uint64_t start = kv_current_time_ms();
  timing duration = timing::written;
  rc = s_handle(*pair, *static_cast<worker_thread_parameters*>(thread_parameters), duration);
  if (duration == timing::written) {
    KV_LOG_INFO("Request handled in %d ms", static_cast<int>(kv_elapsed_time_ms(start)));
  }
  if (pair->reply->json == nullptr) {
    KV_LOG_WARN("Creating generic error reply");
    if (kv_reply_set_return_code(&pair->reply->json, rc) != 0) {
      rc = -1;  // the transport answers in its own words
    }
  }
  return rc;
}
