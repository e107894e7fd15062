#pragma once
// The detection service as the worker sees it: process-wide state with the tenants' active-content
// definitions, the hooks of start and end, and the handlers of the requests that only this service
// understands. The definitions are guarded by one lock; everything else is constant after global
// init.

#include <json-c/json.h>

#include <cstdint>

#include "messaging/kv_request_reply_types.h"
#include "worker/kv_worker.h"
#include "worker/kv_worker_scan_types.h"

struct kv_service_state_t;

// Makes args->service. 0, or -1 with the reason in error (KV_ERROR_TEXT_SIZE bytes).
[[nodiscard]] int kv_worker_global_init(kv_worker_config_t* config, kv_worker_thread_args_t* args,
                                        char* error);
int kv_worker_global_cleanup(kv_worker_thread_args_t* args);
// Frees the state once no thread uses it any more, and clears the caller's pointer. Null is
// allowed.
void kv_service_state_free(kv_service_state_t** state);
[[nodiscard]] int kv_initialize_service(worker_thread_parameters* thread, kv_service_state_t* state,
                                        char* error);
// A newly allocated reply text, or null.
[[nodiscard]] char* kv_worker_handle_service_init_request(json_object* request,
                                                          worker_thread_parameters* thread);
// Answers one scan request; always 0, every outcome is in the reply.
std::int32_t kv_worker_handle_scan_request(kv_worker_config_t* config,
                                           kv_const_request_reply_t* pair, json_object* request,
                                           worker_thread_parameters* thread);

// Fetches a pair's definition from the control service. 1 when an entry was stored, else -1.
[[nodiscard]] int kvactivecontent_load_ac_definition(kv_worker_config_t* config,
                                                     kv_service_state_t* state, const char* realm,
                                                     const char* sid);
// Sets the job's switches from the pair's definition, fetching it on first use. 0 or -1.
[[nodiscard]] int kvactivecontent_extract_ac_parameters(kv_worker_config_t* config, scanobject* job,
                                                        kv_service_state_t* state,
                                                        const char* realm, const char* sid);
// Throws definitions away: all of them, or those of a realm and/or SID (null stands for any).
void kvactivecontent_free_definitions(kv_service_state_t* state, const char* realm, const char* sid,
                                      bool all);
