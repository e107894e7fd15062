#pragma once
// Signals of the process: SIGTERM ends it, SIGPIPE is ignored. The handler stores two words and
// nothing else; the main thread reports the signal at its next step. Main thread only.

#include <chrono>

// Installs the handler. 0, or -1 with the reason in errno.
[[nodiscard]] int kv_worker_install_signals();
// Logs a signal that has arrived since the last call.
void kv_worker_report_signal();

enum class kv_pause_end { never_early, when_killed };
// Sleeps, reporting a signal as it comes; can end early once the process is to end.
void kv_worker_pause(std::chrono::milliseconds duration, kv_pause_end end);
