#include "worker/kv_worker_events.h"

#include <unistd.h>

#include "common/kv_json.h"
#include "logging/kv_log.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_names.h"
#include "worker/kv_worker_signals.h"

namespace {

kv_pqueue_t* s_queue(const kv_worker_config_t& config) {
  return config.log_dispatcher == nullptr ? nullptr : config.log_dispatcher->queue;
}

void s_send_event(const kv_worker_config_t& config, std::int32_t type, const char* error,
                  const std::string& text) {
  kv_log_send_event(s_queue(config), type, nullptr, nullptr, nullptr, error, nullptr, text.c_str(),
                    nullptr);
}

void s_add_section(json_object* message, const char* key, const std::string& text) {
  kv_json_ptr data{json_object_new_object()};
  if (!data) {
    return;  // the bare message still tells that something happened
  }
  json_object_object_add(data.get(), "Message", json_object_new_string(text.c_str()));
  kv_log_add_log_section(message, key, nullptr, data.release());
}

std::string s_who(const kv_worker_config_t& config) {
  return std::string(KV_SERVICE_TITLE) + " worker" + kv_worker_role_suffix(config) + ", PID " +
         std::to_string(getpid());
}

}  // namespace

int kv_worker_start_event_log(kv_worker_config_t& config) {
  const std::string run_directory = kv_worker_run_directory(config.basedir);
  config.log_dispatcher = kv_log_create_log_dispatcher(run_directory.c_str(), config.amqp);
  if (config.log_dispatcher == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Failed to start log dequeue thread");
    return -1;
  }
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", "Log dequeue thread created");
  return 0;
}

void kv_worker_stop_event_log(kv_worker_config_t& config) {
  if (config.log_dispatcher == nullptr) {
    return;
  }
  kv_worker_pause(KV_LAST_RECORDS_PAUSE, kv_pause_end::never_early);
  kv_log_free_log_dispatcher(&config.log_dispatcher, KV_JOIN_DISPATCHER_MS);
}

void kv_worker_report_ready(const kv_worker_config_t& config) {
  if (config.log_dispatcher == nullptr) {
    return;
  }
  const std::string text =
      s_who(config) + " ready with " + std::to_string(config.worker_threads) + " threads";
  const kv_json_ptr message{kv_log_create_message()};
  s_add_section(message.get(), KV_LOG_SECTION_STATUS, text);
  s_send_event(config, KV_EVENT_WORKER_READY, nullptr, text);
  kv_log_enqueue(s_queue(config), KV_PQUEUE_LOG, message.get());
}

void kv_worker_report_load(const kv_worker_config_t& config, std::int32_t event,
                           const std::string& text) {
  if (config.log_dispatcher != nullptr) {
    s_send_event(config, event, nullptr, text);
  }
}

void kv_worker_report_shutdown(const kv_worker_config_t& config, const std::string& error_text) {
  if (config.log_dispatcher == nullptr) {
    return;
  }
  const kv_json_ptr message{kv_log_create_message()};
  if (!error_text.empty()) {
    s_add_section(message.get(), KV_LOG_SECTION_ERROR, error_text);
    s_send_event(config, KV_EVENT_ERROR_SHUTDOWN, error_text.c_str(), error_text);
  }
  const std::string text = s_who(config) + " shutting down";
  s_add_section(message.get(), KV_LOG_SECTION_STATUS, text);
  if (error_text.empty()) {
    s_send_event(config, KV_EVENT_SHUTDOWN, nullptr, text);
  }
  kv_log_enqueue(s_queue(config), KV_PQUEUE_LOG, message.get());
}
