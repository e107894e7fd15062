#pragma once
// The steps of the start-up, in their order, for the table that runs them. Private to the start-up.

#include "worker/kv_worker_process.h"

// Up to the open trace: the process finds its feet.
kv_step_end kv_start_clean_slate(kv_worker_process_t& process);
kv_step_end kv_start_records(kv_worker_process_t& process);
kv_step_end kv_start_command_line(kv_worker_process_t& process);
kv_step_end kv_start_version_file(kv_worker_process_t& process);
kv_step_end kv_start_background(kv_worker_process_t& process);
kv_step_end kv_start_signals(kv_worker_process_t& process);
kv_step_end kv_start_broker(kv_worker_process_t& process);
kv_step_end kv_start_trace(kv_worker_process_t& process);

// The service and its threads, the announcement to the others.
kv_step_end kv_start_load_samples(kv_worker_process_t& process);
kv_step_end kv_start_event_log(kv_worker_process_t& process);
kv_step_end kv_start_service(kv_worker_process_t& process);
kv_step_end kv_start_control_wait(kv_worker_process_t& process);
kv_step_end kv_start_worker_threads(kv_worker_process_t& process);
kv_step_end kv_start_update(kv_worker_process_t& process);
kv_step_end kv_start_registration(kv_worker_process_t& process);
kv_step_end kv_start_announcements(kv_worker_process_t& process);
kv_step_end kv_start_ready_report(kv_worker_process_t& process);
kv_step_end kv_start_control_thread(kv_worker_process_t& process);

// Ends the start-up with the shutdown path and -1 as the process's result.
[[nodiscard]] kv_step_end kv_start_failed(kv_worker_process_t& process);
