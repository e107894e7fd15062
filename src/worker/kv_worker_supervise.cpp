#include <malloc.h>

#include <string>

#include "common/kv_time.h"
#include "logging/kv_log.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_events.h"
#include "worker/kv_worker_load.h"
#include "worker/kv_worker_names.h"
#include "worker/kv_worker_process.h"
#include "worker/kv_worker_signals.h"

namespace {

std::uint64_t s_now_s() {
  return kv_current_time_ms() / 1000;
}

void s_register_again_when_due(kv_worker_process_t& process) {
  const auto interval = process.config->register_interval;
  const auto passed = static_cast<std::int64_t>(s_now_s() - process.registered_at_s);
  if (passed <= interval) {
    return;
  }
  process.identity.name = kv_worker_name();
  kv_worker_register(*process.config, process.identity, kv_registration::repeated,
                     process.error_text);
  process.registered_at_s = s_now_s();
}

void s_notify_high_load(kv_worker_process_t& process) {
  kv_worker_config_t& config = *process.config;
  const std::string text = "Load High-Water mark met. Average load exceeds " +
                           std::to_string(config.autoscale_high_water_mark) +
                           " percent over the past " +
                           std::to_string(config.autoscale_monitoring_period) + " seconds";
  KV_LOG_DEBUG("%s", text.c_str());
  if (kvworker_send_hwm_notice(&config, config.amqp, process.identity.name.c_str()) != 0) {
    KV_LOG_ERROR("Failed to send HWM notification message");
  }
  kv_worker_report_load(config, KV_EVENT_HIGH_WATER_MARK, text);
  kvctrl_initialize_load_sample_array(process.load_samples.get(), process.load_sample_count);
}

void s_notify_low_load(kv_worker_process_t& process) {
  kv_worker_config_t& config = *process.config;
  const std::string text = "Load Low-Water mark met. Average load is less than " +
                           std::to_string(config.autoscale_low_water_mark) +
                           " percent over the past " +
                           std::to_string(config.autoscale_monitoring_period) + " seconds";
  KV_LOG_DEBUG("%s", text.c_str());
  if (kvworker_send_lwm_notice(&config, config.amqp, process.identity.name.c_str()) != 0) {
    KV_LOG_ERROR("Failed to send LWM notification message");
  }
  kv_worker_report_load(config, KV_EVENT_LOW_WATER_MARK, text);
  kvctrl_initialize_load_sample_array(process.load_samples.get(), process.load_sample_count);
}

bool s_update_is_activated(const kv_worker_process_t& process) {
  return process.config->update_thread->update_state.load(std::memory_order_relaxed) ==
         KV_UPDATE_ACTIVATED;
}

// Replaces the process by the new version. A restart that cannot be completed ends the worker.
void s_restart_into_new_version(kv_worker_process_t& process) {
  kv_update_thread_args_t& update = *process.config->update_thread;
  KV_LOG_INFO("Update activation complete. Restarting worker from %s",
              update.new_version == nullptr ? "" : update.new_version);
  kv_worker_pause(KV_RESTART_PAUSE, kv_pause_end::never_early);
  KV_LOG_ERROR("Failed to complete update activation");
  update.update_state.store(KV_UPDATE_IDLE, std::memory_order_relaxed);
  process.rc = 0;
}

}  // namespace

void kv_worker_check_load(kv_worker_process_t& process) {
  const kv_worker_config_t& config = *process.config;
  const std::int32_t average =
      kvworker_get_load(process.threads, process.load_sample_count, process.load_samples.get());
  if (average == KV_NO_SAMPLE) {
    return;
  }
  if (average > config.autoscale_high_water_mark) {
    s_notify_high_load(process);
  }
  if (config.primary == 0 && average < config.autoscale_low_water_mark) {
    s_notify_low_load(process);
  }
}

void kv_worker_supervise(kv_worker_process_t& process) {
  process.registered_at_s = s_now_s();
  while (true) {
    s_register_again_when_due(process);
    if (s_update_is_activated(process)) {
      s_restart_into_new_version(process);
      return;
    }
    if (process.config->autoscale != 0) {
      kv_worker_check_load(process);
    }
    malloc_trim(0);
    kv_worker_pause(KV_SUPERVISOR_PULSE, kv_pause_end::when_killed);
    if (kv_is_killed()) {
      KV_LOG_INFO("Signal received. Exiting gracefully...");
      process.rc = 0;
      return;
    }
  }
}
