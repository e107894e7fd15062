#include "common/kvsemaphore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "common/kv_time.h"
#include "support/trace_capture.h"

namespace {

class Semaphore : public testing::Test {
 protected:
  Semaphore() : name_("kv_test_" + std::to_string(getpid())) {
    handle_ = KVsem_open(name_.c_str(), O_CREAT, 0600, 0, 1);
    EXPECT_NE(handle_, SEM_FAILED);
  }
  ~Semaphore() override {
    sem_close(handle_);
    KVsem_unlink(name_.c_str());
  }
  std::string name_;
  sem_t* handle_;
};

TEST_F(Semaphore, IsTakenAndPosted) {
  EXPECT_EQ(KVsem_timedwait(handle_, 0), 0);
  EXPECT_EQ(KVsem_timedwait(handle_, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(KVsem_timedwait(handle_, -5), -1);
  EXPECT_EQ(KVsem_post(handle_), 0);
  EXPECT_EQ(KVsem_timedwait(handle_, 5000), 0);
}

TEST_F(Semaphore, WaitsWholeSecondsOnly) {
  ASSERT_EQ(KVsem_timedwait(handle_, 0), 0);
  std::uint64_t start = kv_current_time_ms();
  EXPECT_EQ(KVsem_timedwait(handle_, 999), -1) << "999 counts as nanoseconds";
  EXPECT_LT(kv_elapsed_time_ms(start), 900U);
  start = kv_current_time_ms();
  EXPECT_EQ(KVsem_timedwait(handle_, 1999), -1);
  EXPECT_TRUE(errno == ETIMEDOUT || errno == EINVAL);
  if (errno == ETIMEDOUT) {
    EXPECT_GE(kv_elapsed_time_ms(start), 990U);
  }
}

TEST_F(Semaphore, NanosecondsAreNotCarried) {
  ASSERT_EQ(KVsem_timedwait(handle_, 0), 0);
  // In the last 999999 nanoseconds of a second the sum is no valid time any more. One try per
  // second: on a busy machine this thread may not run just then.
  const std::uint64_t start = kv_current_time_ms();
  bool invalid = false;
  while (!invalid && kv_elapsed_time_ms(start) < 60000) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_nsec < 998000000) {
      const timespec pause{.tv_sec = 0, .tv_nsec = 998100000 - now.tv_nsec};
      nanosleep(&pause, nullptr);
    } else if (now.tv_nsec > 999050000) {
      EXPECT_EQ(KVsem_timedwait(handle_, 999999), -1);
      invalid = errno == EINVAL;
    }
  }
  EXPECT_TRUE(invalid);
}

TEST_F(Semaphore, OpenLogsTheHandleAndUnlinkItsResult) {
  const trace_capture trace;
  sem_t* const again = KVsem_open(name_.c_str(), 0, 0, 0, 0);
  EXPECT_EQ(again, handle_) << "one process, one mapping";
  sem_close(again);
  EXPECT_EQ(KVsem_open("kv_test_none", 0, 0, 0, 0), SEM_FAILED);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(trace.count("TRACE", "Exiting, rc=0x"), 1);
  EXPECT_EQ(trace.count("TRACE", "Exiting, rc=(nil)"), 1);
  EXPECT_EQ(KVsem_unlink("kv_test_none"), -1);
  EXPECT_EQ(trace.count("DEBUG", "(): Entering"), 1);
  EXPECT_EQ(trace.count("DEBUG", "rc=-1"), 1);
  EXPECT_EQ(trace.count("DEBUG", "(): Exiting"), 1);
}

TEST_F(Semaphore, NamesAndHandlesThatAreNoneAreRefused) {
  const trace_capture trace;
  EXPECT_EQ(KVsem_open(std::string(4096, 'x').c_str(), O_CREAT, 0600, 0, 1), SEM_FAILED);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(trace.count("FATAL", "too long"), 1);
  EXPECT_EQ(KVsem_open(nullptr, O_CREAT, 0600, 0, 1), SEM_FAILED);
  EXPECT_EQ(KVsem_timedwait(nullptr, 1000), -1);
  EXPECT_EQ(KVsem_post(nullptr), -1);
  EXPECT_EQ(KVsem_unlink(nullptr), -1);
}

}  // namespace
