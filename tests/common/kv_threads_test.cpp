#include "common/kv_threads.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "common/kv_time.h"

namespace {

std::atomic<bool> keep_running{false};

void* wait_for_the_end(void*) {
  while (keep_running) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return nullptr;
}

void* end_at_once(void* argument) {
  *static_cast<std::atomic<bool>*>(argument) = true;
  return nullptr;
}

TEST(Threads, CreatesAndJoins) {
  std::atomic<bool> ran{false};
  pthread_t thread{};
  ASSERT_EQ(KV_CreateThread(&thread, end_at_once, &ran), 0);
  EXPECT_EQ(KV_JoinThread(thread), 0);
  EXPECT_TRUE(ran);
}

TEST(Threads, ZeroAndNullAreRefused) {
  EXPECT_EQ(KV_JoinThread(0), -1);
  EXPECT_EQ(KV_JoinThreadTimeout(0, 100), -1);
  EXPECT_EQ(KV_KillThread(nullptr, 0), -1);
}

TEST(Threads, KillGivesThePthreadResult) {
  keep_running = true;
  pthread_t thread{};
  ASSERT_EQ(KV_CreateThread(&thread, wait_for_the_end, nullptr), 0);
  EXPECT_EQ(KV_KillThread(&thread, 0), 0);
  EXPECT_EQ(KV_KillThread(&thread, 9999), EINVAL);
  keep_running = false;
  EXPECT_EQ(KV_JoinThread(thread), 0);
}

TEST(Threads, JoinOfAnEndedThreadReturnsSoon) {
  std::atomic<bool> ran{false};
  pthread_t thread{};
  ASSERT_EQ(KV_CreateThread(&thread, end_at_once, &ran), 0);
  while (!ran) {
    std::this_thread::yield();
  }
  const std::uint64_t start = kv_current_time_ms();
  EXPECT_EQ(KV_JoinThreadTimeout(thread, 60000), 0);
  EXPECT_LT(kv_elapsed_time_ms(start), 5000U);
}

TEST(Threads, JoinGivesUpAtTheLimitAndLeavesTheTargetJoinable) {
  keep_running = true;
  pthread_t thread{};
  ASSERT_EQ(KV_CreateThread(&thread, wait_for_the_end, nullptr), 0);
  for (const std::uint32_t limit : {0U, 35U}) {
    const std::uint64_t start = kv_current_time_ms();
    EXPECT_EQ(KV_JoinThreadTimeout(thread, limit), 1);
    EXPECT_GE(kv_elapsed_time_ms(start), limit == 0 ? 9U : 34U);
    EXPECT_EQ(KV_KillThread(&thread, 0), 0) << "still running";
  }
  keep_running = false;
  EXPECT_EQ(KV_JoinThreadTimeout(thread, 60000), 0);
}

TEST(Time, ElapsedAndExpired) {
  const std::uint64_t now = kv_current_time_ms();
  EXPECT_GE(kv_current_time_ms(), now);
  EXPECT_GE(kv_elapsed_time_ms(now - 1000), 1000U);
  EXPECT_LT(kv_elapsed_time_ms(now - 1000), 60000U);
  EXPECT_TRUE(kv_timeout_expired(now - 100, 100));
  EXPECT_FALSE(kv_timeout_expired(now, 60000));
  EXPECT_TRUE(kv_timeout_expired(now, 0));
}

TEST(Time, NothingRemainsOnceTheLimitHasPassed) {
  const std::uint64_t now = kv_current_time_ms();
  EXPECT_EQ(kv_remaining_time_ms(now - 101, 100), 0U);
  EXPECT_LE(kv_remaining_time_ms(now - 40, 60000), 59960U);
  EXPECT_GT(kv_remaining_time_ms(now - 40, 60000), 30000U);
}

TEST(Time, RemainingTimeCountsModulo32Bits) {
  constexpr std::uint64_t kWrap = 1ULL << 32;
  const std::uint64_t start = kv_current_time_ms() - kWrap - 40;  // wraps below zero, as intended
  EXPECT_GT(kv_remaining_time_ms(start, 60000), 30000U);
}

}  // namespace
