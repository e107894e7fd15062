#pragma once
// Lines for standard output, written by a thread of their own: a reader that does not read must not
// stop the broker. What does not fit in the bounded queue is dropped and counted in a line of its
// own. Any thread.

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace kv_suite {

class line_printer {
 public:
  explicit line_printer(int descriptor);
  ~line_printer();  // tries to write what is left, for at most a second
  line_printer(const line_printer&) = delete;
  line_printer& operator=(const line_printer&) = delete;

  // Takes one line without its line feed.
  void print(std::string line);

 private:
  void run();

  const int descriptor_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> lines_;
  std::size_t dropped_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace kv_suite
