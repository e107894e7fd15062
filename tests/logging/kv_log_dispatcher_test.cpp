#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "logging/kv_log.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// The broker of these tests: notes what is asked, answers what it is told to.
struct broker_double {
  std::mutex mutex;
  std::condition_variable changed;
  int answer = 0;
  bool hang_until_stopped = false;
  std::vector<std::string> requests;
  std::vector<clock_type::time_point> times;

  bool wait_for_requests(std::size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return requests.size() >= count; });
  }
};

broker_double* current_broker = nullptr;

int deliver(kv_amqp_config*, const char* service, const char* json, std::int32_t timeout_ms,
            std::uint32_t retries, char*) {
  EXPECT_EQ(timeout_ms, 3000);
  EXPECT_EQ(retries, 3u);
  std::unique_lock lock(current_broker->mutex);
  current_broker->requests.push_back(std::string(service) + ":" + json);
  current_broker->times.push_back(clock_type::now());
  current_broker->changed.notify_all();
  if (current_broker->hang_until_stopped) {
    current_broker->changed.wait_for(lock, 20s, [] { return kv_amqp_stop_requested(); });
    return -1;
  }
  return current_broker->answer;
}

class dispatcher : public testing::Test {
 protected:
  void SetUp() override {
    current_broker = &broker_;
    run_ = folder_.file("run");
  }
  void TearDown() override { stop(); }

  void start() {
    dispatcher_ = kv_log_create_log_dispatcher(run_.c_str(), &config_, deliver);
    ASSERT_NE(dispatcher_, nullptr);
  }
  void stop() { kv_log_free_log_dispatcher(&dispatcher_, 5000); }
  // Queues entries before or beside the dispatcher.
  void push(char type, std::string_view text) {
    fs::create_directory(run_);
    const kv_pqueue_ptr queue{
        kv_pqueue_open(run_.c_str(), KV_LOG_QUEUE_NAME, 100, 100000, O_CREAT, 1)};
    ASSERT_EQ(kv_pqueue_push(queue.get(), type, text.data(), text.size()), 0);
  }
  [[nodiscard]] std::size_t waiting() const {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(data())) {
      ++count;
    }
    return count;
  }
  [[nodiscard]] std::string data() const { return run_ + "/" + KV_LOG_QUEUE_NAME + "/data"; }
  bool wait_until_empty() {
    const auto limit = clock_type::now() + 10s;
    while (waiting() != 0 && clock_type::now() < limit) {
      std::this_thread::sleep_for(5ms);
    }
    return waiting() == 0;
  }

  broker_double broker_;
  temp_dir folder_;
  std::string run_;
  kv_amqp_config config_{};
  kv_log_dispatcher* dispatcher_ = nullptr;
};

}  // namespace

TEST_F(dispatcher, MakesTheRunDirectoryAndTheQueue) {
  start();
  struct stat status {};
  ASSERT_EQ(stat(run_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0750U & ~umask(umask(0)));
  EXPECT_EQ(dispatcher_->queue->max_entries, 10000);
  EXPECT_EQ(dispatcher_->queue->max_bytes, 50000000);
  EXPECT_EQ(dispatcher_->queue->mode, 1);
}

TEST_F(dispatcher, DeliversLogsBeforeEventsToTheirServices) {
  push('E', "event");
  push('L', "log");
  start();
  ASSERT_TRUE(broker_.wait_for_requests(2));
  EXPECT_THAT(broker_.requests,
              testing::ElementsAre("kv-av-log:log", "kv-av-events-dispatch:event"));
  EXPECT_TRUE(wait_until_empty()) << "an acknowledged entry is removed";
}

TEST_F(dispatcher, BacksOffAndKeepsWhatWasNotAcknowledged) {
  const trace_capture trace;
  broker_.answer = -1;
  push('L', "kept");
  push('E', "kept too");
  start();
  ASSERT_TRUE(broker_.wait_for_requests(4));
  for (std::size_t i = 1; i < 4; ++i) {
    const auto pause = broker_.times[i] - broker_.times[i - 1];
    EXPECT_GE(pause, std::chrono::milliseconds(250 * i)) << i;
  }
  EXPECT_EQ(waiting(), 2u);
  {
    const std::lock_guard lock(broker_.mutex);
    broker_.answer = 0;
  }
  EXPECT_TRUE(wait_until_empty());
  EXPECT_GE(trace.count("ERROR", "Failed to send log/event entry "), 3);
}

TEST_F(dispatcher, RemovesAnEmptyEntryWithoutSendingIt) {
  const trace_capture trace;
  push('L', "first");
  std::ofstream(data() + "/Lempty").flush();
  start();
  EXPECT_TRUE(wait_until_empty());
  const std::lock_guard lock(broker_.mutex);
  EXPECT_EQ(broker_.requests.size(), 1u);
  EXPECT_EQ(trace.count("WARN", "Empty data, removing it from the queue"), 1);
}

TEST_F(dispatcher, StopEndsTheRequestUnderWayAndKeepsItsEntry) {
  broker_.hang_until_stopped = true;
  push('L', "under way");
  start();
  ASSERT_TRUE(broker_.wait_for_requests(1));
  dispatcher_->stop.store(1);
  broker_.changed.notify_all();
  const auto start_time = clock_type::now();
  stop();
  EXPECT_LT(clock_type::now() - start_time, 3s);
  EXPECT_EQ(waiting(), 1u);
}

TEST_F(dispatcher, OnlyTheHolderOfTheLockDelivers) {
  push('L', "one");
  const kv_pqueue_ptr other{
      kv_pqueue_open(run_.c_str(), KV_LOG_QUEUE_NAME, 100, 100000, O_CREAT, 1)};
  ASSERT_EQ(kv_pqueue_lock(other.get()), 0);
  start();
  EXPECT_FALSE([this] {
    std::unique_lock lock(broker_.mutex);
    return broker_.changed.wait_for(lock, 600ms, [this] { return !broker_.requests.empty(); });
  }());
  ASSERT_EQ(kv_pqueue_unlock(other.get()), 0);
  EXPECT_TRUE(broker_.wait_for_requests(1)) << "it takes over when the lock is free";
}

TEST_F(dispatcher, WithoutAQueueTheThreadEndsAtOnceAndTheProcessGoesOn) {
  const trace_capture trace;
  run_ = "/proc/kv-no-such-folder";
  start();
  stop();
  EXPECT_EQ(trace.count("ERROR", "Failed to allocate persistent queue"), 1);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameters"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Log dequeue thread ending"), 1);
}

TEST_F(dispatcher, NamesHalfWrittenEntriesOnce) {
  push('L', "whole");
  std::ofstream(data() + "/temp_Lhalf.dat") << "half";
  const trace_capture trace;
  start();
  ASSERT_TRUE(broker_.wait_for_requests(1));
  stop();
  EXPECT_EQ(trace.count("WARN", "holds 1 half-written entries left by a crash"), 1);
  EXPECT_TRUE(fs::exists(data() + "/temp_Lhalf.dat")) << "the queue never removes it";
}

TEST_F(dispatcher, LogsTheBrokerItSendsTo) {
  const trace_capture trace;
  config_.broker_host = const_cast<char*>("broker.example");
  config_.broker_password = const_cast<char*>("clear text");
  push('L', "x");
  start();
  ASSERT_TRUE(broker_.wait_for_requests(1));
  stop();
  EXPECT_EQ(trace.count("TRACE", "Dequeing entry to broker broker.example"), 1);
  EXPECT_EQ(trace.count("TRACE", "                  pass   clear text"), 1);
  EXPECT_EQ(trace.count("TRACE", " SENT to service kv-av-log"), 1);
  EXPECT_EQ(trace.count("INFO", "log dequeue thread created"), 1);
  EXPECT_EQ(trace.count("TRACE", "Log queue locked"), 1);
}
