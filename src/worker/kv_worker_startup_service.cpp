// The steps of the start-up behind the open trace.
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <new>

#include "activecontent/kvactivecontent_service.h"
#include "common/KVstrerror.h"
#include "common/kv_secure_random.h"
#include "logging/log-helper.h"
#include "messaging/kv_qpid_proton_mt_interface.h"
#include "worker/kv_worker_control.h"
#include "worker/kv_worker_events.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_load.h"
#include "worker/kv_worker_names.h"
#include "worker/kv_worker_signals.h"
#include "worker/kv_worker_startup_internal.h"

kv_step_end kv_start_load_samples(kv_worker_process_t& process) {
  process.load_sample_count =
      KV_SAMPLES_PER_PERIOD_SECOND * process.config->autoscale_monitoring_period;
  process.load_samples.reset(new (std::nothrow)
                                 std::int32_t[static_cast<std::size_t>(process.load_sample_count)]);
  if (!process.load_samples) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Memory allocation error (load_samples) - Exiting");
    process.rc = -1;
    return kv_step_end::leave;
  }
  kvctrl_initialize_load_sample_array(process.load_samples.get(), process.load_sample_count);
  return kv_step_end::next;
}

kv_step_end kv_start_event_log(kv_worker_process_t& process) {
  if (kv_worker_start_event_log(*process.config) != 0) {
    process.rc = -1;
    return kv_step_end::leave;
  }
  return kv_step_end::next;
}

kv_step_end kv_start_service(kv_worker_process_t& process) {
  std::array<char, KV_ERROR_TEXT_SIZE> error{};
  process.service_is_initialised = true;
  while (kv_worker_global_init(process.config.get(), process.shared.get(), error.data()) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "main", "Global init of service %s failed: %s - retrying in 1s",
              KV_SERVICE_TITLE, error.data());
    if (kv_is_killed()) {
      return kv_step_end::shut_down;  // without a service there is nothing to go on with
    }
    kv_worker_pause(KV_RETRY_PAUSE, kv_pause_end::when_killed);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_control_wait(kv_worker_process_t& process) {
  kv_worker_wait_for_control(process.config->amqp);
  return kv_step_end::next;
}

kv_step_end kv_start_worker_threads(kv_worker_process_t& process) {
  process.threads = zlist_new();
  if (process.threads == nullptr) {
    process.error_text = std::string(KV_SERVICE_TITLE) + ": Could not allocate worker-threads list";
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "%s", process.error_text.c_str());
    return kv_start_failed(process);
  }
  for (int number = 0; number < process.config->worker_threads; ++number) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "main", "Starting worker thread %d and parameters at %p", number,
              static_cast<void*>(process.shared.get()));
    if (kv_worker_create_thread(process.threads, process.shared.get()) != 0) {
      KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Failed to create worker thread number %d", number);
      process.error_text = std::string(KV_SERVICE_TITLE) + " failed to create worker thread(s)";
      return kv_start_failed(process);
    }
  }
  return kv_step_end::next;
}

// Opens the lock by which one process of an installation updates it.
kv_step_end kv_start_update(kv_worker_process_t& process) {
  const std::string file = kv_worker_lock_file(process.config->basedir);
  update_lockfile = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, KV_LOCK_FILE_MODE);
  if (update_lockfile < 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "main", "Failed to open %s: %s", file.c_str(), KVstrerror(errno));
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_registration(kv_worker_process_t& process) {
  process.identity.name = kv_worker_name();
  process.identity.own_secret = kv_secure_random_text(KV_SECRET_LENGTH);
  if (process.identity.own_secret.empty()) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "main", "Failed to allocate %s", "secret");
    return kv_start_failed(process);
  }
  kv_worker_register(*process.config, process.identity, kv_registration::first, process.error_text);
  if (!kv_is_killed()) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, "main", "Registered %s with broker",
              process.identity.name.c_str());
  }
  return kv_step_end::next;
}

// A worker that is already on its way out hands nothing over: the other one would wait for it in
// vain.
kv_step_end kv_start_announcements(kv_worker_process_t& process) {
  const kv_worker_config_t& config = *process.config;
  if (kv_is_killed()) {
    return kv_step_end::next;
  }
  if (config.signal_when_ready != nullptr && kv_worker_send_ready(config, process.identity) != 0) {
    return kv_start_failed(process);
  }
  if (config.shutdown_when_ready != nullptr && kv_worker_send_shutdown(config) != 0) {
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_ready_report(kv_worker_process_t& process) {
  if (!kv_is_killed()) {
    kv_worker_report_ready(*process.config);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_control_thread(kv_worker_process_t& process) {
  if (kv_qpid_start_service_handler_threads(process.config->amqp, process.identity.name.c_str(),
                                            kv_worker_control_request_handler, process.shared.get(),
                                            &killed, 1) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Failed to create control job handler thread");
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}
