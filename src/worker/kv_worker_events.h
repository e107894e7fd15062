#pragma once
// What the worker reports of its life to the log service and the event dispatcher: ready, load,
// shutdown. Records go through the persistent queue, so none is lost to an outage. Main thread
// only; without a dispatcher nothing is reported.

#include <cstdint>
#include <string>

#include "worker/kv_worker_process.h"

// Starts the dispatcher on the run directory. 0 or -1.
[[nodiscard]] int kv_worker_start_event_log(kv_worker_config_t& config);
// Gives pending records time to go out, then ends the dispatcher.
void kv_worker_stop_event_log(kv_worker_config_t& config);

// "ready with %d threads" as status log and event 3010.
void kv_worker_report_ready(const kv_worker_config_t& config);
// A water-mark notice as event 3060 or 3070.
void kv_worker_report_load(const kv_worker_config_t& config, std::int32_t event,
                           const std::string& text);
// "shutting down" as status log, with event 3030, or with the error log and event 3020 when there
// is an error text.
void kv_worker_report_shutdown(const kv_worker_config_t& config, const std::string& error_text);
