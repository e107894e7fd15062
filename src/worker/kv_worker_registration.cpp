#include "worker/kv_worker_registration.h"

#include "logging/log-helper.h"
#include "worker/kv_worker_ping.h"
#include "worker/kv_worker_signals.h"

namespace {

bool s_pings_answered(kv_amqp_config* broker, std::chrono::milliseconds pause) {
  for (int ping = 0; ping < KV_CONTROL_PINGS_PER_SERIES; ++ping) {
    if (ping > 0) {
      kv_worker_pause(pause, kv_pause_end::never_early);
    }
    kv_worker_report_signal();
    if (kv_worker_ping(broker, KV_CONTROL_SERVICE, KV_CONTROL_PING_TRIES,
                       KV_CONTROL_PING_TIMEOUT_MS, 0) == 0) {
      return true;
    }
  }
  return false;
}

// Any JSON reply is success, whatever its return code: the control service has heard the worker.
bool s_is_heard(kv_amqp_config* broker, const std::string& text, std::int32_t timeout_ms) {
  const kv_json_ptr reply{kv_amqp_send_recv_json(broker, KV_CONTROL_SERVICE, text.c_str(),
                                                 timeout_ms, KV_CONTROL_REQUEST_RETRIES, nullptr)};
  return reply != nullptr;
}

// What another worker must not only have heard but done.
int s_is_done(const kv_worker_config_t& config, const char* target, const std::string& text) {
  const kv_amqp_stop_scope ends_with_the_process(&killed);
  return kv_amqp_simple_request(config.amqp, target, text.c_str(), KV_CONTROL_REQUEST_TIMEOUT_MS,
                                KV_CONTROL_REQUEST_RETRIES, nullptr) == 0
             ? 0
             : -1;
}

void s_report_failure(kv_registration which, const char* function) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, function,
            which == kv_registration::first
                ? "%s: Failed to register worker with control - retrying"
                : "%s: Failed to re-register worker with control - retrying",
            KV_SERVICE_TITLE);
}

const char* s_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

void kv_worker_wait_for_control(kv_amqp_config* broker, std::chrono::milliseconds pause) {
  KV_LOG_DEBUG("Waiting for service kv-av-worker-control on %s:%s", broker->broker_host,
               broker->broker_port);
  // A ping before the first connection stands fails at once and would cost the pause behind it.
  kv_amqp_wait_connected(broker, KV_FIRST_CONNECTION_MS);
  while (!s_pings_answered(broker, pause)) {
    KV_LOG_WARN("Still waiting for service kv-av-worker-control to become available");
  }
}

void kv_worker_register(const kv_worker_config_t& config, const kv_worker_identity_t& identity,
                        kv_registration which, std::string& error_text) {
  const std::string text =
      kv_register_text(which, identity.name.c_str(), config.primary, identity.own_secret.c_str());
  const kv_amqp_stop_scope ends_with_the_process(&killed);
  while (!kv_is_killed()) {
    if (s_is_heard(config.amqp, text, KV_CONTROL_REQUEST_TIMEOUT_MS)) {
      return;
    }
    kv_worker_report_signal();
    if (kv_is_killed()) {
      return;  // given up, which is no failure
    }
    error_text = std::string(KV_SERVICE_TITLE) + ": Failed to register worker with control";
    s_report_failure(which, __func__);
    // A request that fails at once, as without a connection, must not turn this into a busy loop.
    kv_worker_pause(KV_SUPERVISOR_PULSE, kv_pause_end::when_killed);
  }
}

int kv_worker_send_ready(const kv_worker_config_t& config, const kv_worker_identity_t& identity) {
  KV_LOG_DEBUG("Signaling ready to %s with %s", config.signal_when_ready,
               s_or_empty(config.secret));
  if (s_is_done(config, config.signal_when_ready,
                kv_ready_text(config.secret, identity.name.c_str(), identity.own_secret.c_str())) !=
      0) {
    KV_LOG_ERROR("Failed to send READY message");
    return -1;
  }
  return 0;
}

int kv_worker_send_shutdown(const kv_worker_config_t& config) {
  KV_LOG_DEBUG("Sending shutdown request to %s with %s", config.shutdown_when_ready,
               s_or_empty(config.secret));
  if (s_is_done(config, config.shutdown_when_ready, kv_shutdown_text(config.secret)) != 0) {
    KV_LOG_ERROR("Failed to send SHUTDOWN message");
    return -1;
  }
  KV_LOG_TRACE("Shutdown message reception confirmed by %s", config.shutdown_when_ready);
  return 0;
}

int kvworker_send_wm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                            const char* worker_name, std::int32_t code) {
  const std::string text = kv_notice_text(code, worker_name, worker->primary);
  return s_is_heard(broker, text, KV_NOTICE_TIMEOUT_MS) ? 0 : -1;
}

int kvworker_send_hwm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                             const char* worker_name) {
  return kvworker_send_wm_notice(worker, broker, worker_name, KV_COMMAND_HIGH_WATER_MARK);
}

int kvworker_send_lwm_notice(kv_worker_config_t* worker, kv_amqp_config* broker,
                             const char* worker_name) {
  return kvworker_send_wm_notice(worker, broker, worker_name, KV_COMMAND_LOW_WATER_MARK);
}
