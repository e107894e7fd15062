#pragma once
// Recursive scan: an object that this worker finds inside another and does not judge itself goes to
// the other scanning services of the suite, one after another, with a copy of the job's settings;
// their file rows are merged into the job's result. The chain is the job's "Services" text. Worker
// threads call it; several may merge into one consolidated result at once. As many run in the
// process as the semaphore has slots.

#include <semaphore.h>

#include <cstddef>
#include <cstdint>

#include "messaging/kv_amqp_client.h"
#include "worker/kv_worker_scan_types.h"

// Longest wait for one service where the job has no time budget, in milliseconds.
inline constexpr std::int64_t KV_RECURSIVE_REQUEST_LIMIT_MS = 120000;

inline constexpr std::size_t KV_LATEST_DIR_SIZE = 4096;

// Asks a service; what carries a request.
using kv_recursive_ask_fn = json_object* (*)(kv_amqp_config* config, const char* service,
                                             kv_const_request_reply_t* pair,
                                             std::int32_t timeout_ms, std::int32_t extra_time_ms,
                                             std::uint32_t retries, char* error_text);

// What the process gives to all recursive scans. Made once, before the worker threads start.
struct kv_recursive_scan_t {
  kv_amqp_config* amqp;  // borrowed
  sem_t* slots;          // null: not limited
  kv_recursive_ask_fn ask = kv_amqp_send_recv_json_data;
};

// A scan's object and what it may use; texts and bytes are borrowed.
struct kv_recursive_scan_args_t {
  kv_recursive_scan_t* process;
  kv_scan_result_t* consolidated;
  scanobject* job;
  const void* data;
  std::uint64_t length;
  const char* name;
  std::int64_t time_left_ms;  // KV_NO_TIME_LIMIT for none
  std::int32_t recursion;     // depth of the object that holds this one
  bool use_shared_memory;
  char* reason;         // KV_ERROR_TEXT_SIZE bytes; takes a blocking reason
  char* error;          // KV_ERROR_TEXT_SIZE bytes; takes an error text
  std::int32_t result;  // set by kvworker_RecursiveScan_thread
};

// Opens the semaphore with one slot for each of the threads; its name is gone again right away.
// Without it recursive scans are not limited. Free closes it.
[[nodiscard]] kv_recursive_scan_t* kv_recursive_scan_new(kv_amqp_config* amqp,
                                                         std::int32_t threads);
void kv_recursive_scan_free(kv_recursive_scan_t** process);
using kv_recursive_scan_ptr =
    std::unique_ptr<kv_recursive_scan_t, kv_free_address<kv_recursive_scan_free>>;

// Scans one object through the services of the job. 0 clean, -100 not completed, -200 depth reached
// or policy violated, -1000 failed; other blocking codes are passed on from the service.
[[nodiscard]] std::int32_t kvworker_RecursiveScan(const kv_recursive_scan_args_t& args);
// The same on a thread of its own, holding one slot; the argument is a kv_recursive_scan_args_t.
void* kvworker_RecursiveScan_thread(void* args);
// The same as the callable that detectors hand embedded objects to; the context is a
// kv_recursive_scan_t.
[[nodiscard]] std::int32_t kv_recursive_scan_embedded(void* context, scanobject* job,
                                                      kv_scan_result_t* consolidated,
                                                      const void* data, std::uint64_t length,
                                                      const char* name, std::uint8_t flag,
                                                      std::int64_t time_left_ms, char* reason,
                                                      char* error);

// Splits a services text at ";" into a null-terminated array of owned names, or null when out of
// memory.
[[nodiscard]] char** s_tokenize_services(const char* services);
void kv_services_free(char*** services);
using kv_services_ptr = std::unique_ptr<char*[], kv_free_address<kv_services_free>>;

// The request JSON for another service, or null with the reason in error (KV_ERROR_TEXT_SIZE
// bytes). shm_id is -1 when the data travels in the message.
[[nodiscard]] json_object* s_kv_worker_encodescanjobtoJSON(json_object* scan_job,
                                                           std::int32_t recursion,
                                                           std::int32_t shm_id, const char* name,
                                                           std::uint64_t length, char* error);

// Finds the current version directory below base: base/N with the number in base/latest.tms, else
// base/default. Always 0.
int kvworker_getLatestDir(const char* base, char* out);
