#pragma once
// The requests of one address that have come and that no thread has taken yet, and the threads that
// wait for one. To wake a thread costs more than many a request, and more threads at work than
// there are cores only take turns. So threads are woken one at a time, the one that went idle last
// first, until as many are at work as there are cores; a thread that waits inside a request, for
// another service say, does not count. Beyond that a further thread joins whenever no request has
// been taken for a millisecond: long requests hold up short ones no longer than that.

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "messaging/kv_qpid_replies.h"

class kv_request_queue;

// A thread that serves requests, for as long as it does; made and used on that thread.
class kv_request_thread {
 public:
  explicit kv_request_thread(kv_request_queue& queue);
  ~kv_request_thread();
  kv_request_thread(const kv_request_thread&) = delete;
  kv_request_thread& operator=(const kv_request_thread&) = delete;

 private:
  friend class kv_request_queue;
  friend class kv_request_pause;
  friend class kv_request_call;

  kv_request_queue& queue_;
  // What it sleeps on. A condition would do, with three more system calls for each time.
  sem_t called_;
  std::atomic<int> callers_{0};  // at called_ at present
  bool is_called_ = false;       // these two under the queue's mutex
  bool is_busy_ = false;
};

// Wakes a thread at the end of its life, which lies behind that of the lock under which the thread
// was chosen: whoever wakes up should not find the mutex taken.
class kv_request_call {
 public:
  kv_request_call() = default;
  ~kv_request_call();
  kv_request_call(const kv_request_call&) = delete;
  kv_request_call& operator=(const kv_request_call&) = delete;
  void choose(kv_request_thread& thread);

 private:
  kv_request_thread* thread_ = nullptr;
};

// Stands round a wait inside a request: another thread may have the core meanwhile. Does nothing on
// a thread that serves no requests.
class kv_request_pause {
 public:
  kv_request_pause();
  ~kv_request_pause();
  kv_request_pause(const kv_request_pause&) = delete;
  kv_request_pause& operator=(const kv_request_pause&) = delete;

 private:
  kv_request_thread* const thread_;
};

class kv_request_queue {
 public:
  // For the cores of this machine; patience is how long no request may be taken before a further
  // thread joins.
  kv_request_queue();
  kv_request_queue(unsigned cores, std::chrono::milliseconds patience)
      : cores_(cores), patience_(patience) {}

  // Any thread.
  // Of requests that come together all but the last say that more follow at once: a thread is woken
  // for the first, for the last, and when several wait. One that was woken for each would go idle
  // before the next came.
  void push(kv_received_message&& request, bool more_follow);
  // Waits for a request. Nothing once *stop is non-zero (seen within a second) or after close. A
  // request counts as served when its thread comes for the next.
  [[nodiscard]] std::optional<kv_received_message> take(kv_request_thread& self,
                                                        const std::atomic<std::int32_t>& stop);
  // Ends every take; what has not been taken stays.
  void close();
  // Removes what has not been taken.
  [[nodiscard]] std::deque<kv_received_message> take_all();

 private:
  friend class kv_request_pause;
  friend class kv_request_thread;
  using lock_type = std::unique_lock<std::mutex>;

  void set_busy(kv_request_thread& thread, bool is_busy);
  void pause(kv_request_thread& thread);
  void resume(kv_request_thread& thread);
  [[nodiscard]] kv_received_message take_front(kv_request_thread& self, kv_request_call& call);
  static void sleep(lock_type& lock, kv_request_thread& self, std::chrono::milliseconds limit);
  [[nodiscard]] bool wait_idle(lock_type& lock, kv_request_thread& self);
  [[nodiscard]] bool watch(lock_type& lock, kv_request_thread& self);
  void call_for_waiting(kv_request_call& call);

  const unsigned cores_;
  const std::chrono::milliseconds patience_;
  std::mutex mutex_;
  std::deque<kv_received_message> requests_;
  std::vector<kv_request_thread*> idle_;  // in the order in which they went idle
  kv_request_thread* watcher_ = nullptr;  // joins when nothing is taken for a while
  bool is_calling_ = false;               // a thread has been called and is not awake yet
  bool in_burst_ = false;                 // the last request said that more follow
  bool closed_ = false;
  unsigned busy_ = 0;        // threads at work
  std::uint64_t taken_ = 0;  // requests taken so far
};
