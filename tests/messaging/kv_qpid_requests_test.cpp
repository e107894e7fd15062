#include "messaging/kv_qpid_requests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

namespace {

kv_received_message request(std::uint64_t sequence) {
  kv_received_message message;
  message.sequence = sequence;
  return message;
}

constexpr std::chrono::hours kNever{1};
constexpr std::chrono::milliseconds kSoon{1};

class RequestQueue : public testing::Test {
 protected:
  std::uint64_t take_one(kv_request_queue& queue) {
    kv_request_thread self(queue);
    const auto taken = queue.take(self, stop);
    return taken ? taken->sequence : 0;
  }
  // Threads that serve until the queue is closed.
  template <class Serve>
  std::vector<std::thread> start_threads(int count, kv_request_queue& queue, Serve serve) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this, &queue, serve] {
        kv_request_thread self(queue);
        while (const auto taken = queue.take(self, stop)) {
          serve(taken->sequence);
        }
      });
    }
    return threads;
  }
  static void join(std::vector<std::thread>& threads) {
    std::ranges::for_each(threads, &std::thread::join);
  }

  // Comes back only when as many threads are at work at once.
  void bring_to_work(int count, kv_request_queue& queue) {
    std::latch all_at_work{count};
    auto threads =
        start_threads(count, queue, [&](std::uint64_t) { all_at_work.arrive_and_wait(); });
    for (int i = 0; i < count; ++i) {
      queue.push(request(static_cast<std::uint64_t>(i)), false);
    }
    all_at_work.wait();
    queue.close();
    join(threads);
  }

  std::atomic<std::int32_t> stop{0};
};

TEST_F(RequestQueue, GivesOutInTheOrderOfArrival) {
  kv_request_queue queue;
  for (std::uint64_t i = 1; i <= 3; ++i) {
    queue.push(request(i), false);
  }
  for (std::uint64_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(take_one(queue), i);
  }
}

// The first is taken while the others are still to come; the last makes known all that came since.
TEST_F(RequestQueue, ABurstIsTakenAtItsBeginningAndAtItsEnd) {
  kv_request_queue queue(3, kNever);
  std::latch first{1};
  std::latch all_at_work{3};
  auto threads = start_threads(3, queue, [&](std::uint64_t sequence) {
    if (sequence == 1) {
      first.count_down();
    }
    all_at_work.arrive_and_wait();
  });
  queue.push(request(1), true);
  first.wait();
  queue.push(request(2), true);
  queue.push(request(3), false);
  all_at_work.wait();
  queue.close();
  join(threads);
}

TEST_F(RequestQueue, GivesNothingOnceStopIsSet) {
  kv_request_queue queue;
  queue.push(request(1), false);
  stop = 1;
  EXPECT_EQ(take_one(queue), 0U);
  EXPECT_EQ(queue.take_all().size(), 1U);
}

TEST_F(RequestQueue, KeepsWhatIsNotTakenWhenItIsClosed) {
  kv_request_queue queue;
  queue.push(request(1), false);
  queue.push(request(2), false);
  queue.close();
  EXPECT_EQ(take_one(queue), 0U);
  const auto rest = queue.take_all();
  ASSERT_EQ(rest.size(), 2U);
  EXPECT_EQ(rest.front().sequence, 1U);
  EXPECT_TRUE(queue.take_all().empty());
}

TEST_F(RequestQueue, CloseEndsEveryWait) {
  kv_request_queue queue(1, kNever);
  std::latch working{1};
  std::latch closed{1};
  // One at work, one that watches for it, the others idle.
  auto threads = start_threads(4, queue, [&](std::uint64_t) {
    working.count_down();
    closed.wait();
  });
  queue.push(request(1), false);
  queue.push(request(2), false);
  working.wait();
  queue.close();
  closed.count_down();
  join(threads);
  EXPECT_EQ(queue.take_all().size(), 1U);
}

TEST_F(RequestQueue, AnIdleThreadSeesItsStopFlagUnwoken) {
  kv_request_queue queue;
  auto threads = start_threads(2, queue, [](std::uint64_t) { FAIL() << "nothing was pushed"; });
  stop = 1;
  join(threads);
}

TEST_F(RequestQueue, AThreadIsWokenForEachCore) {
  kv_request_queue queue(8, kNever);
  bring_to_work(8, queue);
}

TEST_F(RequestQueue, NoMoreThreadsWorkThanThereAreCores) {
  constexpr std::uint64_t kRequests = 1000;
  kv_request_queue queue(1, kNever);
  std::atomic<int> at_work{0};
  std::atomic<int> most{0};
  std::atomic<std::uint64_t> left{kRequests};
  for (std::uint64_t i = 0; i < kRequests; ++i) {
    queue.push(request(i), false);
  }
  std::latch first_at_work{1};
  auto threads = start_threads(1, queue, [&](std::uint64_t sequence) {
    if (sequence == 0) {
      first_at_work.count_down();
    }
    most = std::max(most.load(), ++at_work);
    --at_work;
    if (--left == 0) {
      queue.close();
    }
  });
  first_at_work.wait();
  for (auto& thread : start_threads(4, queue, [](std::uint64_t) {})) {
    threads.push_back(std::move(thread));
  }
  join(threads);
  EXPECT_EQ(most, 1);
}

TEST_F(RequestQueue, AFurtherThreadJoinsWhenNothingIsTaken) {
  kv_request_queue queue(1, kSoon);
  bring_to_work(16, queue);
}

TEST_F(RequestQueue, AWaitInsideARequestFreesItsCore) {
  kv_request_queue queue(1, kNever);
  std::latch second_taken{1};
  auto threads = start_threads(2, queue, [&](std::uint64_t sequence) {
    if (sequence == 1) {
      const kv_request_pause pause;
      second_taken.wait();
    } else {
      second_taken.count_down();
      queue.close();
    }
  });
  queue.push(request(1), false);
  queue.push(request(2), false);
  join(threads);
  EXPECT_TRUE(queue.take_all().empty());
}

// A thread that is told to stop does not come for another request.
TEST_F(RequestQueue, AThreadThatLeavesFreesItsCore) {
  kv_request_queue queue(1, kNever);
  queue.push(request(1), false);
  queue.push(request(2), false);
  EXPECT_EQ(take_one(queue), 1U);
  EXPECT_EQ(take_one(queue), 2U);
}

TEST_F(RequestQueue, APauseOutsideARequestDoesNothing) {
  kv_request_queue queue;
  { const kv_request_pause pause; }
  queue.push(request(1), false);
  EXPECT_EQ(take_one(queue), 1U);
  { const kv_request_pause pause; }
}

TEST_F(RequestQueue, ServesEachRequestOnce) {
  constexpr std::uint64_t kRequests = 20'000;
  for (const unsigned cores : {1U, 2U, 8U}) {
    kv_request_queue queue(cores, kSoon);
    std::vector<std::atomic<int>> served(kRequests);
    std::atomic<std::uint64_t> left{kRequests};
    auto threads = start_threads(8, queue, [&](std::uint64_t sequence) {
      if (sequence % 100 == 0) {
        const kv_request_pause pause;
        std::this_thread::yield();
      }
      ++served[sequence];
      if (--left == 0) {
        queue.close();
      }
    });
    for (std::uint64_t i = 0; i < kRequests; ++i) {
      queue.push(request(i), i % 7 != 0 && i + 1 < kRequests);
      if (i % 64 == 0) {
        std::this_thread::yield();  // lets threads go idle now and then
      }
    }
    join(threads);
    EXPECT_TRUE(std::ranges::all_of(served, [](const auto& count) { return count == 1; }));
  }
}

}  // namespace
