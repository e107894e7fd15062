#include <array>

#include "worker/kv_worker_signals.h"
#include "worker/kv_worker_startup_internal.h"

namespace {

using start_step = kv_step_end (*)(kv_worker_process_t& process);

// The order is part of the behaviour: a command line that cannot be read leaves no trace on disk,
// the version file is there before the caller goes on, nothing with threads exists before the fork,
// and no request is taken before the control service has answered.
// clang-format off
constexpr std::array<start_step, 18> kSteps{
    kv_start_clean_slate,
    kv_start_records,
    kv_start_command_line,
    kv_start_version_file,
    kv_start_background,
    kv_start_signals,
    kv_start_broker,
    kv_start_trace,
    kv_start_load_samples,
    kv_start_event_log,
    kv_start_service,
    kv_start_control_wait,
    kv_start_worker_threads,
    kv_start_update,
    kv_start_registration,
    kv_start_announcements,
    kv_start_ready_report,
    kv_start_control_thread,
};
// clang-format on

}  // namespace

kv_step_end kv_start_failed(kv_worker_process_t& process) {
  process.rc = -1;
  return kv_step_end::shut_down;
}

kv_step_end kv_worker_start_up(kv_worker_process_t& process) {
  for (const start_step step : kSteps) {
    kv_worker_report_signal();
    const kv_step_end end = step(process);
    if (end != kv_step_end::next) {
      return end;
    }
  }
  return kv_step_end::next;
}
