#include "messaging/kv_thread_group.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

namespace {

using namespace std::chrono_literals;
using test_clock = std::chrono::steady_clock;

TEST(ThreadGroup, JoinsThreadsThatHaveEnded) {
  kv_thread_group group;
  std::atomic<int> ran{0};
  for (int i = 0; i < 5; ++i) {
    group.start([&] { ++ran; });
  }
  EXPECT_TRUE(group.join(test_clock::now() + 20s));
  EXPECT_EQ(ran.load(), 5);
}

TEST(ThreadGroup, LeavesBehindAThreadThatIsStuckAndKeepsWhatItHolds) {
  std::promise<void> release;
  std::promise<void> ended;
  const auto held = std::make_shared<std::promise<void>*>(&ended);
  std::weak_ptr<std::promise<void>*> watch = held;
  {
    kv_thread_group group;
    group.start([held, gate = std::make_shared<std::future<void>>(release.get_future())] {
      gate->wait();
      (*held)->set_value();
    });
    EXPECT_FALSE(group.join(test_clock::now() + 20ms));
  }
  EXPECT_FALSE(watch.expired());
  release.set_value();
  EXPECT_EQ(ended.get_future().wait_for(20s), std::future_status::ready);
}

TEST(ThreadGroup, AnEmptyGroupIsJoinedAtOnce) {
  kv_thread_group group;
  EXPECT_TRUE(group.join(test_clock::now()));
}

}  // namespace
