#include "common/kv_threads.h"

#include <czmq.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr int kPollIntervalMs = 10;

constexpr int kTryIntervalMs = 2;

// Lives in the frame of the waiting caller, which joins the watcher before it leaves.
struct join_watch {
  pthread_t target;
  std::atomic<bool> done{false};       // written by the watcher only
  std::atomic<bool> cancelled{false};  // written by the caller only
};

// Tries instead of blocking: a thread that is cancelled inside pthread_join is torn down in the
// middle of library code, which race detectors take for an error.
void* join_timeout_helper(void* argument) {
  auto* const watch = static_cast<join_watch*>(argument);
  while (!watch->cancelled.load(std::memory_order_acquire)) {
    if (pthread_tryjoin_np(watch->target, nullptr) != EBUSY) {
      watch->done.store(true, std::memory_order_release);
      break;
    }
    zclock_sleep(kTryIntervalMs);
  }
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
  watch.cancelled.store(true, std::memory_order_release);
  pthread_join(watcher, nullptr);
  // Read once more: a target that was joined while the watcher was being cancelled is gone, and a
  // caller that believes otherwise would join it a second time.
  return watch.done.load(std::memory_order_acquire) ? 0 : 1;
}
