#include "messaging/kv_thread_group.h"

#include <utility>

void kv_thread_group::start(std::function<void()> body) {
  const auto ended = std::make_shared<bool>(false);
  const std::lock_guard lock(state_->mutex);
  std::thread thread([shared = state_, ended, body = std::move(body)]() mutable {
    body();
    const std::lock_guard inner(shared->mutex);
    *ended = true;
    --shared->running;
    shared->changed.notify_all();
  });
  ++state_->running;
  members_.push_back({std::move(thread), ended});
}

bool kv_thread_group::join(std::chrono::steady_clock::time_point deadline) {
  std::vector<std::pair<std::thread, bool>> threads;
  {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_until(lock, deadline, [&] { return state_->running == 0; });
    for (member& each : members_) {
      threads.emplace_back(std::move(each.thread), *each.ended);
    }
    members_.clear();
  }
  bool all_ended = true;
  for (auto& [thread, has_ended] : threads) {
    if (has_ended) {
      thread.join();
    } else {
      thread.detach();
      all_ended = false;
    }
  }
  return all_ended;
}
