#include "messaging/kv_qpid_requests.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace {

// How often an idle thread looks at its stop flag without being woken.
constexpr kv_ms kStopPoll{1000};

constexpr kv_ms kPatience{1};

// One long request must not hold up the others for kPatience each time.
constexpr unsigned kLeastCores = 2;

// So many requests wait for no end of a burst.
constexpr std::size_t kManyWaiting = 4;

thread_local kv_request_thread* current_thread = nullptr;

}  // namespace

kv_request_thread::kv_request_thread(kv_request_queue& queue) : queue_(queue) {
  sem_init(&called_, 0, 0);
  current_thread = this;
}

kv_request_thread::~kv_request_thread() {
  current_thread = nullptr;
  queue_.pause(*this);  // it may leave in the middle of a request
  while (callers_.load(std::memory_order_acquire) != 0) {
    std::this_thread::yield();
  }
  sem_destroy(&called_);
}

void kv_request_call::choose(kv_request_thread& thread) {
  thread.callers_.fetch_add(1, std::memory_order_relaxed);
  thread.is_called_ = true;
  thread_ = &thread;
}

kv_request_call::~kv_request_call() {
  if (thread_ != nullptr) {
    sem_post(&thread_->called_);
    thread_->callers_.fetch_sub(1, std::memory_order_release);
  }
}

kv_request_pause::kv_request_pause() : thread_(current_thread) {
  if (thread_ != nullptr) {
    thread_->queue_.pause(*thread_);
  }
}

kv_request_pause::~kv_request_pause() {
  if (thread_ != nullptr) {
    thread_->queue_.resume(*thread_);
  }
}

kv_request_queue::kv_request_queue()
    : kv_request_queue(std::max(kLeastCores, std::thread::hardware_concurrency()), kPatience) {}

void kv_request_queue::push(kv_received_message&& request, bool more_follow) {
  kv_request_call call;
  const std::lock_guard lock(mutex_);
  requests_.push_back(std::move(request));
  if (!in_burst_ || !more_follow || requests_.size() >= kManyWaiting) {
    call_for_waiting(call);
  }
  in_burst_ = more_follow;
}

std::optional<kv_received_message> kv_request_queue::take(kv_request_thread& self,
                                                          const std::atomic<std::int32_t>& stop) {
  kv_request_call call;
  lock_type lock(mutex_);
  bool is_wanted = self.is_busy_;  // who comes from a request takes the next in any case
  set_busy(self, false);
  while (!closed_ && stop.load(std::memory_order_relaxed) == 0) {
    if (!requests_.empty() && (is_wanted || busy_ < cores_)) {
      return take_front(self, call);
    }
    is_wanted =
        !requests_.empty() && watcher_ == nullptr ? watch(lock, self) : wait_idle(lock, self);
  }
  return std::nullopt;
}

void kv_request_queue::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  for (kv_request_thread* const thread : idle_) {
    sem_post(&thread->called_);
  }
  if (watcher_ != nullptr) {
    sem_post(&watcher_->called_);
  }
}

std::deque<kv_received_message> kv_request_queue::take_all() {
  const std::lock_guard lock(mutex_);
  return std::exchange(requests_, {});
}

// ---- all below under the mutex, save pause and resume, which take it ----

void kv_request_queue::set_busy(kv_request_thread& thread, bool is_busy) {
  busy_ += static_cast<unsigned>(is_busy) - static_cast<unsigned>(thread.is_busy_);
  thread.is_busy_ = is_busy;
}

void kv_request_queue::pause(kv_request_thread& thread) {
  kv_request_call call;
  const std::lock_guard lock(mutex_);
  set_busy(thread, false);
  call_for_waiting(call);
}

void kv_request_queue::resume(kv_request_thread& thread) {
  const std::lock_guard lock(mutex_);
  set_busy(thread, true);
}

kv_received_message kv_request_queue::take_front(kv_request_thread& self, kv_request_call& call) {
  kv_received_message request = std::move(requests_.front());
  requests_.pop_front();
  ++taken_;
  set_busy(self, true);
  call_for_waiting(call);
  return request;
}

// Until it is called, the limit has passed, or for no reason.
void kv_request_queue::sleep(lock_type& lock, kv_request_thread& self, kv_ms limit) {
  constexpr long kNanosecondsInSecond = 1'000'000'000;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += seconds.count();
  until.tv_nsec += std::chrono::nanoseconds(limit - seconds).count();
  if (until.tv_nsec >= kNanosecondsInSecond) {
    until.tv_nsec -= kNanosecondsInSecond;
    ++until.tv_sec;
  }
  lock.unlock();
  sem_clockwait(&self.called_, CLOCK_MONOTONIC, &until);
  lock.lock();
}

// Whether the thread is wanted in any case is for others to find out: always false.
bool kv_request_queue::wait_idle(lock_type& lock, kv_request_thread& self) {
  idle_.push_back(&self);
  sleep(lock, self, kStopPoll);
  if (self.is_called_) {
    self.is_called_ = false;
    is_calling_ = false;
  } else {
    std::erase(idle_, &self);
  }
  return false;
}

// True when the watcher is wanted itself: nothing was taken while it watched.
bool kv_request_queue::watch(lock_type& lock, kv_request_thread& self) {
  const std::uint64_t taken_before = taken_;
  watcher_ = &self;
  sleep(lock, self, patience_);
  watcher_ = nullptr;
  if (self.is_called_) {
    self.is_called_ = false;
    is_calling_ = false;
  }
  return taken_ == taken_before;
}

// For requests that wait: a thread for a free core, or one that watches until there is need of it.
void kv_request_queue::call_for_waiting(kv_request_call& call) {
  if (is_calling_ || requests_.empty()) {
    return;
  }
  if (watcher_ != nullptr) {
    if (busy_ < cores_) {
      is_calling_ = true;
      call.choose(*watcher_);
    }
    return;
  }
  if (!idle_.empty()) {
    is_calling_ = true;
    call.choose(*idle_.back());
    idle_.pop_back();
  }
}
