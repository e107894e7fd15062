#pragma once
// Threads that are waited for until a deadline and left behind after it. What a thread's body
// holds lives as long as the thread, also when it is left behind. Any thread.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class kv_thread_group {
 public:
  // Throws std::system_error when the thread cannot be made.
  void start(std::function<void()> body);
  // True when every thread has ended; otherwise the others are detached.
  bool join(std::chrono::steady_clock::time_point deadline);

 private:
  // Shared with the threads, which may outlive the group.
  struct state {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
  };
  struct member {
    std::thread thread;
    std::shared_ptr<bool> ended;  // under the state's mutex
  };

  std::shared_ptr<state> state_ = std::make_shared<state>();
  std::vector<member> members_;  // under the state's mutex
};
