#include <unistd.h>

#include <algorithm>
#include <array>

#include "activecontent/kvactivecontent_service.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_events.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_process.h"
#include "worker/kv_worker_signals.h"

namespace {

// Requests that are in work are answered first, and what is buffered goes back to the broker; both
// need the threads' parameters, so that these outlive the list.
void s_stop_worker_threads(kv_worker_process_t& process) {
  process.ended_threads = kv_worker_take_parameters(process.threads);
  kv_worker_terminate_all_threads(&process.threads);
  killed.store(1, std::memory_order_relaxed);
  if (process.broker_is_initialised) {
    kv_amqp_stop_services(process.config->amqp, KV_STOP_SERVICES_MS);
  }
}

void s_log_completion(kv_worker_process_t&) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", "Shutdown complete");
}

void s_report_shutdown(kv_worker_process_t& process) {
  if (process.config) {
    kv_worker_report_shutdown(*process.config, process.error_text);
  }
}

void s_stop_event_log(kv_worker_process_t& process) {
  if (process.config) {
    kv_worker_stop_event_log(*process.config);
  }
}

void s_end_broker(kv_worker_process_t& process) {
  if (process.broker_is_initialised) {
    kv_amqp_deinit(process.config->amqp);
  }
}

void s_clean_up_service(kv_worker_process_t& process) {
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, "main", "Starting worker global cleanup");
  if (process.service_is_initialised) {
    kv_worker_global_cleanup(process.shared.get());
  }
}

void s_free_shared_records(kv_worker_process_t& process) {
  if (update_lockfile >= 0) {
    close(update_lockfile);
    update_lockfile = -1;
  }
  process.ended_threads.clear();
  if (process.config) {
    kv_update_thread_args_free(&process.config->update_thread);
  }
  process.load_samples.reset();
  if (process.shared) {
    kv_service_state_free(&process.shared->service);
  }
  process.shared.reset();
}

using stop_step = void (*)(kv_worker_process_t& process);

// No request is taken any more before anything that a request needs goes.
// clang-format off
constexpr std::array<stop_step, 6> kSteps{
    s_stop_worker_threads,
    s_log_completion,
    s_report_shutdown,
    s_stop_event_log,
    s_end_broker,
    s_clean_up_service,
};
// clang-format on

// A scan that outlasted every limit still holds its thread's parameters and the service's state.
bool s_a_thread_is_at_work(const kv_worker_process_t& process) {
  return std::ranges::any_of(process.ended_threads, [](const auto& thread) {
    return thread->current_status.load(std::memory_order_relaxed) == KV_THREAD_BUSY;
  });
}

// The trace's path belongs to the configuration, which is about to go: nothing is logged any more.
void s_end_trace() {
  log_set_screentrace(0);
  log_set_filename(nullptr);
  KVCloseTraceFile();
}

}  // namespace

int kv_worker_shut_down(kv_worker_process_t& process) {
  for (const stop_step step : kSteps) {
    kv_worker_report_signal();
    step(process);
  }
  process.work_left_behind = s_a_thread_is_at_work(process);
  if (!process.work_left_behind) {
    s_free_shared_records(process);
  }
  kv_worker_report_signal();
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", "Ending worker with rc=%d", process.rc);
  s_end_trace();
  return process.rc;
}
