#pragma once
// The requests of one address that have come and that no thread has taken yet, and the threads that
// wait for one. To wake a thread costs more than many a request: one is woken at a time, the one
// that went idle last and whose caches are warm, and whoever takes a request while others wait
// wakes the next. A thread that is done before the next one is awake takes that request, too.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "messaging/kv_qpid_replies.h"

class kv_request_queue {
 public:
  // Any thread.
  void push(kv_received_message&& request);
  // Waits for a request. Nothing once *stop is non-zero (seen within a second) or after close.
  [[nodiscard]] std::optional<kv_received_message> take(const std::atomic<std::int32_t>& stop);
  // Ends every take; what has not been taken stays.
  void close();
  // Removes what has not been taken.
  [[nodiscard]] std::deque<kv_received_message> take_all();

 private:
  // A thread in take; lives on its stack.
  struct idle_thread {
    std::condition_variable called;
    bool is_called = false;
  };

  void wait_for_call(std::unique_lock<std::mutex>& lock);
  void call_one();

  std::mutex mutex_;
  std::deque<kv_received_message> requests_;
  std::vector<idle_thread*> idle_;  // in the order in which they went idle
  bool is_calling_ = false;         // a thread has been called and is not awake yet
  bool closed_ = false;
};
