#pragma once
// Event log: status and error logs for the log service and events for the event dispatcher. Callers
// build a JSON message and queue it on disk (see kv_pqueue.h); one dequeue thread per process
// delivers, and an entry goes only after its service has acknowledged it. Any thread may queue; of
// the processes that share a run directory only the one that holds the queue's lock delivers.

#include <json-c/json.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "logging/kv_pqueue.h"
#include "messaging/kv_amqp_client.h"
#include "messaging/kv_secretbox_encryption.h"

inline constexpr const char* KV_LOG_SERVICE = "kv-av-log";
inline constexpr const char* KV_EVENT_SERVICE = "kv-av-events-dispatch";
inline constexpr const char* KV_LOG_QUEUE_NAME = "kv-av-activecontent.pq";
inline constexpr std::int64_t KV_LOG_QUEUE_MAX_ENTRIES = 10000;
inline constexpr std::int64_t KV_LOG_QUEUE_MAX_BYTES = 50000000;

// Section keys of log messages.
inline constexpr const char* KV_LOG_SECTION_STATUS = "StatusLog";
inline constexpr const char* KV_LOG_SECTION_ERROR = "ErrorLog";
inline constexpr const char* KV_LOG_SECTION_UPDATE = "UpdateLog";

// Types of event.
enum kv_event_type : std::int32_t {
  KV_EVENT_WORKER_READY = 3010,
  KV_EVENT_ERROR_SHUTDOWN = 3020,
  KV_EVENT_SHUTDOWN = 3030,
  KV_EVENT_UPDATE_COMPLETED = 3040,
  KV_EVENT_UPDATE_FAILED = 3050,
  KV_EVENT_HIGH_WATER_MARK = 3060,
  KV_EVENT_LOW_WATER_MARK = 3070,
};

// Asks a service and returns its reply's code; what delivers an entry.
using kv_log_deliver_fn = int (*)(kv_amqp_config* amqp, const char* service, const char* json,
                                  std::int32_t timeout_ms, std::uint32_t retries, char* error_text);

struct kv_log_dispatcher {
  kv_amqp_config* amqp;  // lent
  kv_pqueue_t* queue;    // owned; null when it could not be opened
  std::atomic<std::int32_t> stop;
  pthread_t thread;
  kv_log_deliver_fn deliver;
};

// A time-based UUID as text (release with free), or null.
[[nodiscard]] char* kv_log_generate_eventID();
// The base message with the event ID, or with a new one; null on failure.
[[nodiscard]] json_object* kv_log_create_message_with_eventID(const char* event_id);
[[nodiscard]] json_object* kv_log_create_message();

// Adds {section_key: {"LogData": data}}, and "realmID" unless realm is null or empty. Takes over
// the caller's reference to data. 0 or -1.
int kv_log_add_log_section(json_object* message, const char* section_key, const char* realm,
                           json_object* data);
// Adds "realmID" and {"ScanLog": {"ScanLogPath": path, "LogData": data}}. Takes over data. 0 or -1.
int kv_log_add_scanlog_section(json_object* message, const char* path, const char* realm,
                               json_object* data);

// Queues the message; the caller keeps its reference. 0 or -1.
int kv_log_enqueue(kv_pqueue_t* queue, char type, json_object* message);
// Builds an event and queues it; every text may be null, and key is null for a plain event. 0 or
// -1.
int kv_log_send_event(kv_pqueue_t* queue, std::int32_t type, const char* realm, const char* sid,
                      const char* filename, const char* error, const char* blocking_reason,
                      const char* event_message, kv_secretbox_key* key);

// A new log object of the suite's shared EPO format.
[[nodiscard]] json_object* kv_log_create_epolog_json(std::int32_t event_id, const char* filename,
                                                     const char* threat_name,
                                                     const char* threat_category,
                                                     const char* threat_type, const char* action,
                                                     const char* lib_version,
                                                     const char* dat_version);
// The prefix ("EventID:" when it is empty) followed by the message's event ID or "not set"; release
// with free.
[[nodiscard]] char* kv_log_create_delimited_eventID_string(const char* prefix,
                                                           json_object* message);

// Opens the queue in the run directory (made when missing) and starts the dequeue thread; null on
// failure.
[[nodiscard]] kv_log_dispatcher* kv_log_create_log_dispatcher(
    const char* run_directory, kv_amqp_config* amqp,
    kv_log_deliver_fn deliver = kv_amqp_simple_request);
// Raises the stop flag, joins the thread for at most limit_ms and frees what the thread no longer
// uses.
void kv_log_free_log_dispatcher(kv_log_dispatcher** dispatcher, std::uint32_t limit_ms);
// Body of the dequeue thread; the argument is the dispatcher.
void* kv_log_dequeue_thread(void* dispatcher);
