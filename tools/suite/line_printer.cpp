#include "line_printer.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string_view>

namespace kv_suite {
namespace {

constexpr std::size_t kMaxLines = 10'000;
constexpr int kFarewellMs = 1000;

}  // namespace

line_printer::line_printer(int descriptor) : descriptor_(descriptor) {
  thread_ = std::thread([this] { run(); });
}

line_printer::~line_printer() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void line_printer::print(std::string line) {
  {
    const std::lock_guard lock(mutex_);
    if (lines_.size() >= kMaxLines) {
      ++dropped_;
      return;
    }
    if (dropped_ > 0) {
      lines_.push_back("{\"sink\":\"suite\",\"lines dropped\":" + std::to_string(dropped_) + "}\n");
      dropped_ = 0;
    }
    line += '\n';
    lines_.push_back(std::move(line));
  }
  changed_.notify_one();
}

void line_printer::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || !lines_.empty(); });
    if (lines_.empty())
      return;
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    lock.unlock();
    std::string_view rest = line;
    while (!rest.empty()) {
      pollfd ready{descriptor_, POLLOUT, 0};
      const int count = ::poll(&ready, 1, kFarewellMs);
      if (count == 0) {  // nobody reads: wait on, unless the program is ending
        const std::lock_guard again(mutex_);
        if (ending_)
          return;
        continue;
      }
      // At most what a pipe that polls as ready takes without blocking.
      const ssize_t written =
          ::write(descriptor_, rest.data(), std::min<std::size_t>(rest.size(), 4096));
      if (written < 0 && errno != EINTR && errno != EAGAIN)
        break;
      if (written > 0)
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    lock.lock();
  }
}

}  // namespace kv_suite
