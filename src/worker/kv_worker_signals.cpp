#include "worker/kv_worker_signals.h"

#include <czmq.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

#include "logging/log-helper.h"
#include "worker/kv_worker.h"
#include "worker/kv_worker_limits.h"

namespace {

// The last signal that nobody has reported yet; 0 for none.
std::atomic<int> s_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);  // a handler may not wait

extern "C" void sigterm_handler_fn(int signal_number) {
  killed.store(1, std::memory_order_relaxed);
  s_signal.store(signal_number, std::memory_order_relaxed);
}

}  // namespace

int kv_worker_install_signals() {
  zsys_handler_set(nullptr);  // the library's own handler would take SIGTERM away
  std::signal(SIGPIPE, SIG_IGN);
  struct sigaction action {};
  action.sa_handler = sigterm_handler_fn;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGTERM, &action, nullptr);
}

void kv_worker_report_signal() {
  const int signal_number = s_signal.exchange(0, std::memory_order_relaxed);
  if (signal_number != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "sigterm_handler_fn", "Signal %d handled", signal_number);
  }
}

void kv_worker_pause(std::chrono::milliseconds duration, kv_pause_end end) {
  const auto until = std::chrono::steady_clock::now() + duration;
  while (true) {
    kv_worker_report_signal();
    const auto left = until - std::chrono::steady_clock::now();
    if (left.count() <= 0 || (end == kv_pause_end::when_killed && kv_is_killed())) {
      return;
    }
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, KV_SUPERVISOR_PULSE));
  }
}
