#include "messaging/kv_qpid_requests.h"

#include <gtest/gtest.h>

#include <algorithm>
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

class RequestQueue : public testing::Test {
 protected:
  // Threads that serve until the queue is closed.
  template <class Serve>
  std::vector<std::thread> start_threads(int count, Serve serve) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this, serve] {
        while (const auto taken = queue.take(stop)) {
          serve(taken->sequence);
        }
      });
    }
    return threads;
  }
  static void join(std::vector<std::thread>& threads) {
    std::ranges::for_each(threads, &std::thread::join);
  }

  std::atomic<std::int32_t> stop{0};
  kv_request_queue queue;
};

TEST_F(RequestQueue, GivesOutInTheOrderOfArrival) {
  for (std::uint64_t i = 1; i <= 3; ++i) {
    queue.push(request(i));
  }
  for (std::uint64_t i = 1; i <= 3; ++i) {
    const auto taken = queue.take(stop);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->sequence, i);
  }
}

TEST_F(RequestQueue, GivesNothingOnceStopIsSet) {
  queue.push(request(1));
  stop = 1;
  EXPECT_FALSE(queue.take(stop));
  EXPECT_EQ(queue.take_all().size(), 1U);
}

TEST_F(RequestQueue, KeepsWhatIsNotTakenWhenItIsClosed) {
  queue.push(request(1));
  queue.push(request(2));
  queue.close();
  EXPECT_FALSE(queue.take(stop));
  const auto rest = queue.take_all();
  ASSERT_EQ(rest.size(), 2U);
  EXPECT_EQ(rest.front().sequence, 1U);
  EXPECT_TRUE(queue.take_all().empty());
}

TEST_F(RequestQueue, CloseWakesEveryIdleThread) {
  std::latch started{4};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      started.count_down();
      EXPECT_FALSE(queue.take(stop));
    });
  }
  started.wait();
  queue.close();
  join(threads);
}

TEST_F(RequestQueue, AnIdleThreadSeesItsStopFlagUnwoken) {
  std::vector<std::thread> threads =
      start_threads(2, [](std::uint64_t) { FAIL() << "nothing was pushed"; });
  stop = 1;
  join(threads);
}

// One wake-up at a time must still bring every thread to work: each holds its request until all
// have one.
TEST_F(RequestQueue, AsManyThreadsWorkAsThereAreRequests) {
  constexpr int kThreads = 16;
  for (int round = 0; round < 20; ++round) {
    kv_request_queue fresh;
    std::latch all_at_work{kThreads};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        const auto taken = fresh.take(stop);
        EXPECT_TRUE(taken);
        all_at_work.arrive_and_wait();
      });
    }
    for (std::uint64_t i = 0; i < kThreads; ++i) {
      fresh.push(request(i));
    }
    join(threads);
  }
}

TEST_F(RequestQueue, ServesEachRequestOnce) {
  constexpr std::uint64_t kRequests = 20'000;
  std::vector<std::atomic<int>> served(kRequests);
  std::atomic<std::uint64_t> left{kRequests};
  auto threads = start_threads(8, [&](std::uint64_t sequence) {
    ++served[sequence];
    if (--left == 0) {
      queue.close();
    }
  });
  for (std::uint64_t i = 0; i < kRequests; ++i) {
    queue.push(request(i));
    if (i % 64 == 0) {
      std::this_thread::yield();  // lets threads go idle now and then
    }
  }
  join(threads);
  EXPECT_TRUE(std::ranges::all_of(served, [](const auto& count) { return count == 1; }));
}

}  // namespace
