#include <array>

#include "worker/kv_worker_signals.h"
#include "worker/kv_worker_startup_internal.h"

namespace {

struct start_step {
  const char* name;
  kv_step_end (*run)(kv_worker_process_t& process);
};

// The order is part of the behaviour: a command line that cannot be read leaves no trace on disk,
// the version file is there before the caller goes on, nothing with threads exists before the fork,
// and no request is taken before the control service has answered.
constexpr std::array kSteps{
    start_step{"clean slate", kv_start_clean_slate},
    start_step{"records", kv_start_records},
    start_step{"command line", kv_start_command_line},
    start_step{"version file", kv_start_version_file},
    start_step{"background", kv_start_background},
    start_step{"signals", kv_start_signals},
    start_step{"broker", kv_start_broker},
    start_step{"trace", kv_start_trace},
    start_step{"load samples", kv_start_load_samples},
    start_step{"event log", kv_start_event_log},
    start_step{"service", kv_start_service},
    start_step{"control service", kv_start_control_wait},
    start_step{"worker threads", kv_start_worker_threads},
    start_step{"update", kv_start_update},
    start_step{"registration", kv_start_registration},
    start_step{"announcements", kv_start_announcements},
    start_step{"ready report", kv_start_ready_report},
    start_step{"control thread", kv_start_control_thread},
};

}  // namespace

kv_step_end kv_start_failed(kv_worker_process_t& process) {
  process.rc = -1;
  return kv_step_end::shut_down;
}

kv_step_end kv_worker_start_up(kv_worker_process_t& process) {
  for (const start_step& step : kSteps) {
    kv_worker_report_signal();
    const kv_step_end end = step.run(process);
    if (end != kv_step_end::next) {
      return end;
    }
  }
  return kv_step_end::next;
}
