#pragma once
// One request of a recursive scan to one service, and the reading of its reply. Private to the
// unit.

#include <json-c/json.h>

#include <cstdint>
#include <string>

#include "worker/kv_worker_RecursiveScan.h"

// What one service said of the object.
struct kv_service_answer_t {
  std::int32_t code;
  std::string text;          // blocking reason or error text
  bool is_fallback = false;  // the "+" decided instead of the service's own answer
};

// The error of a scan whose time budget is spent.
inline constexpr const char* KV_SERVICE_SIDE_TIMEOUT = "Service side timeout";

// In a service's name: cuts off the name of its fallback.
inline constexpr char KV_FALLBACK_MARK = '+';

// The object on its way to one service.
struct kv_service_call_t {
  const kv_recursive_scan_t* process;
  const char* service;  // as the list names it, "+" included
  const char* request_json;
  const void* data;  // null when it lies in shared memory
  std::uint64_t length;
  const char* name;
  std::uint64_t start_ms;  // monotonic start of the recursive scan
  std::int64_t limit_ms;   // its time budget, KV_NO_TIME_LIMIT for none
};

// What one more request may take now: at most KV_RECURSIVE_REQUEST_LIMIT_MS without a budget; 0
// once the budget is spent.
[[nodiscard]] std::int32_t kv_recursive_timeout_ms(std::uint64_t start_ms, std::int64_t limit_ms);

// Asks the service, and its fallback where the "+" of its name calls for that. File rows go into
// result; those of an answer that the "+" overrides are dropped with it.
[[nodiscard]] kv_service_answer_t s_kv_worker_RecursiveScanWithService(
    const kv_service_call_t& call, kv_scan_result_ptr& result);

// Reads a reply: rows into result (named below the object's name), code and text as the answer.
[[nodiscard]] kv_service_answer_t kv_recursive_read_reply(json_object* reply, const char* service,
                                                          const char* object_name,
                                                          kv_scan_result_t* result);
