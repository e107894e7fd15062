#include "messaging/kv_qpid_backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using std::chrono::milliseconds;

std::uint32_t s_largest(std::uint32_t bound) {
  return bound - 1;
}
std::uint32_t s_smallest(std::uint32_t) {
  return 0;
}

std::vector<std::int64_t> pauses(kv_qpid_backoff& backoff, int count) {
  std::vector<std::int64_t> result;
  for (int i = 0; i < count; ++i) {
    result.push_back(backoff.next().count());
  }
  return result;
}

TEST(Backoff, DoublesItsBoundUpToTheLongestPause) {
  kv_qpid_backoff backoff(milliseconds(10), milliseconds(60'000), s_largest);
  EXPECT_EQ(pauses(backoff, 16),
            (std::vector<std::int64_t>{0, 10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120, 10240,
                                       20480, 40960, 60000, 60000}));
}

TEST(Backoff, NeverPausesLessThanTheShortest) {
  kv_qpid_backoff backoff(milliseconds(10), milliseconds(60'000), s_smallest);
  EXPECT_EQ(pauses(backoff, 4), (std::vector<std::int64_t>{0, 10, 10, 10}));
}

TEST(Backoff, BeginsAnewAfterAReset) {
  kv_qpid_backoff backoff(milliseconds(10), milliseconds(60'000), s_largest);
  EXPECT_EQ(pauses(backoff, 4), (std::vector<std::int64_t>{0, 10, 20, 40}));
  backoff.reset();
  EXPECT_EQ(pauses(backoff, 3), (std::vector<std::int64_t>{0, 10, 20}));
}

TEST(Backoff, SurvivesSillyLimits) {
  kv_qpid_backoff backoff(milliseconds(0), milliseconds(-5), s_largest);
  EXPECT_EQ(pauses(backoff, 3), (std::vector<std::int64_t>{0, 1, 1}));
}

}  // namespace
