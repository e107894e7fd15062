#include "messaging/kv_qpid_requests.h"

#include <utility>

namespace {

// How often an idle thread looks at its stop flag without being woken.
constexpr kv_ms kStopPoll{1000};

}  // namespace

void kv_request_queue::push(kv_received_message&& request) {
  const std::lock_guard lock(mutex_);
  requests_.push_back(std::move(request));
  call_one();
}

std::optional<kv_received_message> kv_request_queue::take(const std::atomic<std::int32_t>& stop) {
  std::unique_lock lock(mutex_);
  while (!closed_ && stop.load(std::memory_order_relaxed) == 0) {
    if (requests_.empty()) {
      wait_for_call(lock);
      continue;
    }
    std::optional<kv_received_message> request{std::move(requests_.front())};
    requests_.pop_front();
    call_one();
    return request;
  }
  return std::nullopt;
}

void kv_request_queue::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  for (idle_thread* const thread : idle_) {
    thread->called.notify_one();
  }
}

std::deque<kv_received_message> kv_request_queue::take_all() {
  const std::lock_guard lock(mutex_);
  return std::exchange(requests_, {});
}

void kv_request_queue::wait_for_call(std::unique_lock<std::mutex>& lock) {
  idle_thread self;
  idle_.push_back(&self);
  self.called.wait_for(lock, kStopPoll, [&] { return self.is_called || closed_; });
  if (self.is_called) {
    is_calling_ = false;
  } else {
    std::erase(idle_, &self);
  }
}

void kv_request_queue::call_one() {
  if (is_calling_ || requests_.empty() || idle_.empty()) {
    return;
  }
  idle_thread* const thread = idle_.back();
  idle_.pop_back();
  is_calling_ = true;
  thread->is_called = true;
  thread->called.notify_one();
}
