#pragma once
// What the worker tells the control service and another worker of itself: that it is there, that it
// is ready, that the other may go, and that its load is high or low. Main thread only.

#include <cstdint>
#include <string>

#include "worker/kv_worker.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_messages.h"

// Who the worker is towards the others.
struct kv_worker_identity_t {
  std::string name;        // its own address
  std::string own_secret;  // told in registrations, guards its shutdown
};

// Waits without limit until the control service answers a ping; the end of the process does not end
// the wait.
void kv_worker_wait_for_control(kv_amqp_config* broker,
                                std::chrono::milliseconds pause = KV_CONTROL_PING_PAUSE);

// Registers, trying until the control service has answered or the process is to end; each failure
// leaves its text in error_text.
void kv_worker_register(const kv_worker_config_t& config, const kv_worker_identity_t& identity,
                        kv_registration which, std::string& error_text);

// READY to the worker that started this one, SHUTDOWN to the one that this one replaces. 0 or -1.
[[nodiscard]] int kv_worker_send_ready(const kv_worker_config_t& config,
                                       const kv_worker_identity_t& identity);
[[nodiscard]] int kv_worker_send_shutdown(const kv_worker_config_t& config);

// Notices of the load. 0 when the control service has answered, else -1.
[[nodiscard]] int kvworker_send_wm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                                          const char* worker_name, std::int32_t code);
[[nodiscard]] int kvworker_send_hwm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                                           const char* worker_name);
[[nodiscard]] int kvworker_send_lwm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                                           const char* worker_name);
