#include "common/kv_threads.h"

#include <czmq.h>
#include <sys/time.h>

#include <atomic>

namespace {

constexpr int kPollIntervalMs = 10;

// Lives in the frame of the waiting caller, which joins the watcher before it leaves.
struct join_watch {
  pthread_t target;
  std::atomic<bool> done{false};  // written by the watcher only
};

void* join_timeout_helper(void* argument) {
  auto* const watch = static_cast<join_watch*>(argument);
  pthread_join(watch->target, nullptr);  // the cancellation point
  watch->done.store(true, std::memory_order_release);
  return nullptr;
}

std::uint32_t s_milliseconds(const timeval& time) {
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(time.tv_sec) * 1000 +
                                    static_cast<std::uint64_t>(time.tv_usec) / 1000);
}

// Unsigned 32-bit, so that the difference is right across a wrap of either reading.
std::uint32_t s_elapsed_ms(const timeval& start) {
  timeval now{};
  gettimeofday(&now, nullptr);
  return s_milliseconds(now) - s_milliseconds(start);
}

}  // namespace

int KV_CreateThread(pthread_t* thread, KV_thread_routine routine, void* argument) {
  return pthread_create(thread, nullptr, routine, argument) == 0 ? 0 : -1;
}

int KV_KillThread(const pthread_t* thread, int signal_number) {
  return thread == nullptr ? -1 : pthread_kill(*thread, signal_number);
}

int KV_JoinThread(pthread_t thread) {
  return thread == 0 ? -1 : pthread_join(thread, nullptr);
}

int KV_JoinThreadTimeout(pthread_t thread, std::uint32_t limit_ms) {
  if (thread == 0) {
    return -1;
  }
  timeval start{};
  gettimeofday(&start, nullptr);
  join_watch watch{.target = thread};
  pthread_t watcher{};
  if (KV_CreateThread(&watcher, join_timeout_helper, &watch) != 0) {
    return -1;
  }
  bool expired = false;
  do {
    zclock_sleep(kPollIntervalMs);
    expired = limit_ms <= s_elapsed_ms(start);
  } while (!watch.done.load(std::memory_order_acquire) && !expired);
  if (!watch.done.load(std::memory_order_acquire)) {
    pthread_cancel(watcher);
  }
  pthread_join(watcher, nullptr);
  // Read once more: a target that was joined while the watcher was being cancelled is gone, and a
  // caller that believes otherwise would join it a second time.
  return watch.done.load(std::memory_order_acquire) ? 0 : 1;
}
