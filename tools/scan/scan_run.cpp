#include "scan_run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kv_scan {

void run_in_order(std::size_t count, std::size_t workers,
                  const std::function<void(std::size_t, std::size_t)>& work,
                  const std::function<void(std::size_t)>& done,
                  const std::function<void()>& pause) {
  using namespace std::chrono_literals;
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::condition_variable finished_changed;
  std::vector<bool> finished(count);  // guarded by the mutex

  std::vector<std::jthread> threads;
  for (std::size_t worker = 0; worker < std::min(workers, count); ++worker) {
    threads.emplace_back([&, worker] {
      for (std::size_t index = next++; index < count; index = next++) {
        work(worker, index);
        const std::lock_guard lock(mutex);
        finished[index] = true;
        finished_changed.notify_one();
      }
    });
  }
  for (std::size_t index = 0; index < count; ++index) {
    std::unique_lock lock(mutex);
    while (!finished_changed.wait_for(lock, 200ms, [&] { return finished[index]; })) {
      lock.unlock();
      pause();
      lock.lock();
    }
    lock.unlock();
    done(index);
  }
}

}  // namespace kv_scan
