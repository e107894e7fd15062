#include "logging/log-helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "common/kvsemaphore.h"
#include "logging/log-helper_internal.h"
#include "logging/log-helper_test_support.h"
#include "support/temp_dir.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr const char* kStamp = "[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+";

std::string expected_prefix(const std::string& level_padded) {
  char numbers[64];
  std::snprintf(numbers, sizeof numbers, "PID: %6d TID: %6lu ", static_cast<int>(getpid()),
                static_cast<unsigned long>(pthread_self()));
  return "] " + level_padded + " " + numbers + "prog:func(): ";
}

// The line after its time stamp.
std::string after_stamp(const std::string& line) {
  return line.substr(line.find(']'));
}

class TraceLog : public log_test {};

TEST_F(TraceLog, FileLineHasTheExactFormat) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_DEBUG);
  log_log(KV_LOG_LEVEL_WARN, "func", "unit", 42, "value %d of %s", 7, "x");
  const std::string text = read_whole_file(trace());
  EXPECT_THAT(text, MatchesRegex(std::string("\\[") + kStamp + "\\].*\n"));
  EXPECT_EQ(after_stamp(text), expected_prefix("WARN ") + "value 7 of x\n");
}

TEST_F(TraceLog, ConfiguredTraceLevelAddsTheSourceToEveryFileLine) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_TRACE);
  log_log(KV_LOG_LEVEL_ERROR, "func", "unit", 42, "text");
  EXPECT_EQ(after_stamp(read_whole_file(trace())), expected_prefix("ERROR") + "text (unit:42)\n");
}

TEST_F(TraceLog, ScreenLineIsColouredAndAlwaysNamesTheSource) {
  struct {
    std::uint32_t level;
    const char* name;
    const char* colour;
  } const rows[] = {{1, "FATAL", "36"}, {2, "ERROR", "31"}, {3, "WARN ", "33"},
                    {4, "INFO ", "32"}, {5, "DEBUG", "35"}, {6, "TRACE", "34"}};
  for (const auto& row : rows) {
    const std::string line = kv_log_screen_line({"T", row.level, "func", "unit", 3, "message"});
    const std::string prefix = expected_prefix(row.name);
    EXPECT_EQ(line, "[T] \033[" + std::string(row.colour) + "m" + prefix.substr(2) +
                        "message \033[90m(unit:3)\033[0m \n");
  }
}

TEST_F(TraceLog, LevelZeroAndLevelsBeyondTheTableStayInsideTheTables) {
  EXPECT_THAT(kv_log_screen_line({"T", 0, "f", "u", 1, "m"}), HasSubstr("\033[94mOFF   PID"));
  EXPECT_THAT(kv_log_screen_line({"T", 7, "f", "u", 1, "m"}), HasSubstr("TRACE PID"));
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_TRACE);
  log_log(KV_LOG_LEVEL_OFF, "func", "unit", 1, "never");
  EXPECT_EQ(read_whole_file(trace()), "");
}

TEST_F(TraceLog, MillisecondsAreRoundedUpToAFourthDigit) {
  struct {
    long nanoseconds;
    const char* text;
  } const rows[] = {
      {0, "2024-03-05 14:07:09.000"},         {499999, "2024-03-05 14:07:09.000"},
      {500000, "2024-03-05 14:07:09.001"},    {123456789, "2024-03-05 14:07:09.123"},
      {999499999, "2024-03-05 14:07:09.999"}, {999500000, "2024-03-05 14:07:09.1000"}};
  for (const auto& row : rows) {
    EXPECT_EQ(kv_log_timestamp({.tv_sec = 1709647629, .tv_nsec = row.nanoseconds}), row.text);
  }
}

TEST_F(TraceLog, TimeThatCannotBeConvertedLeavesTheStampEmpty) {
  EXPECT_EQ(kv_log_timestamp({.tv_sec = INT64_MAX, .tv_nsec = 0}), "");
}

TEST_F(TraceLog, MessageAboveTheConfiguredLevelIsWrittenNowhere) {
  log_set_filename(trace().c_str());
  log_set_quiet(0);
  log_set_level(KV_LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  log_log(KV_LOG_LEVEL_DEBUG, "func", "unit", 1, "hidden");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(read_whole_file(trace()), "");
}

TEST_F(TraceLog, WithoutFileAndScreenTraceNothingIsWrittenEvenWhenNotQuiet) {
  log_set_quiet(0);
  log_set_level(KV_LOG_LEVEL_TRACE);
  testing::internal::CaptureStderr();
  log_log(KV_LOG_LEVEL_ERROR, "func", "unit", 1, "hidden");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(TraceLog, NotQuietWritesScreenAndFile) {
  log_set_filename(trace().c_str());
  log_set_quiet(0);
  log_set_level(KV_LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  log_log(KV_LOG_LEVEL_INFO, "func", "unit", 1, "both");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("both \033[90m(unit:1)\033[0m \n"));
  EXPECT_THAT(read_whole_file(trace()), EndsWith("prog:func(): both\n"));
}

TEST_F(TraceLog, ScreenTraceWritesToTheScreenAloneThoughQuiet) {
  log_set_quiet(5);
  log_set_screentrace(5);
  log_set_level(KV_LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  log_log(KV_LOG_LEVEL_INFO, "func", "unit", 1, "screen");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("screen"));
}

TEST_F(TraceLog, EnabledExactlyWhenALineWouldGoSomewhere) {
  struct {
    std::uint32_t level;
    const char* filename;
    int quiet;
    int screentrace;
    bool enabled;
  } const rows[] = {
      {4, nullptr, 0, 0, false}, {4, nullptr, 1, 0, false}, {4, nullptr, 1, 1, true},
      {4, "", 1, 0, false},      {4, "", 0, 0, true},       {4, "/x", 1, 0, true},
      {3, "/x", 1, 1, false},    {0, "/x", 0, 1, false},
  };
  for (const auto& row : rows) {
    log_set_level(row.level);
    log_set_filename(row.filename);
    log_set_quiet(row.quiet);
    log_set_screentrace(row.screentrace);
    EXPECT_EQ(log_is_enabled(KV_LOG_LEVEL_INFO), row.enabled);
    EXPECT_FALSE(log_is_enabled(KV_LOG_LEVEL_OFF));
  }
}

TEST_F(TraceLog, FilteredMacroDoesNotEvaluateItsArguments) {
  int calls = 0;
  const auto costly = [&calls] { return ++calls; };
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  KV_LOG_DEBUG("%d", costly());
  EXPECT_EQ(calls, 0);
  KV_LOG_INFO("%d", costly());
  EXPECT_EQ(calls, 1);
}

TEST_F(TraceLog, TraceScopeWritesEnteringAndExitingWithTheLastValue) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_TRACE);
  {
    int rc = -1;
    KV_TRACE_SCOPE(rc);
    rc = 12;
  }
  const std::string text = read_whole_file(trace());
  EXPECT_THAT(text, HasSubstr("(): Entering (log-helper_test:"));
  EXPECT_THAT(text, HasSubstr("(): Exiting, rc=12 (log-helper_test:"));
}

TEST_F(TraceLog, SettersAndGettersAgree) {
  int something = 0;
  log_set_udata(&something);
  EXPECT_EQ(log_get_udata(), &something);
  log_set_level(5);
  EXPECT_EQ(log_get_level(), 5U);
  log_set_maxsize(77);
  EXPECT_EQ(log_get_maxsize(), 77U);
  log_set_filename("/x");
  EXPECT_STREQ(log_get_filename(), "/x");
  log_set_udata(nullptr);
}

TEST_F(TraceLog, LongMessagesAreWrittenWhole) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  for (const std::size_t length : {std::size_t{1023}, std::size_t{1024}, std::size_t{100000}}) {
    const std::string message(length, 'm');
    log_log(KV_LOG_LEVEL_INFO, "func", "unit", 1, "%s", message.c_str());
    EXPECT_THAT(read_whole_file(trace()), EndsWith("(): " + message + "\n"));
  }
}

TEST_F(TraceLog, FileMovedAwayIsCreatedAgain) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  KV_LOG_INFO("first");
  std::filesystem::rename(trace(), trace() + ".old");
  KV_LOG_INFO("second");
  EXPECT_THAT(read_whole_file(trace() + ".old"), HasSubstr("first"));
  EXPECT_THAT(read_whole_file(trace()), HasSubstr("second"));
}

TEST_F(TraceLog, FileThatCannotBeOpenedLosesTheLineSilently) {
  const std::string impossible = folder().path() + "/missing/trace";
  log_set_filename(impossible.c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  KV_LOG_INFO("lost");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  log_set_filename(nullptr);
}

TEST_F(TraceLog, ErrnoSurvivesALine) {
  const std::string impossible = folder().path() + "/missing/trace";
  log_set_filename(impossible.c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  errno = EDOM;
  KV_LOG_INFO("lost");
  EXPECT_EQ(errno, EDOM);
  log_set_filename(nullptr);
}

int refused_calls = 0;
int refuse(void* udata, int action) {
  ++refused_calls;
  EXPECT_EQ(*static_cast<int*>(udata), 99);
  EXPECT_EQ(action, 1);
  return -1;
}

TEST_F(TraceLog, LockThatCannotBeHadDropsTheFileLineButNotTheScreenLine) {
  int udata = 99;
  log_set_udata(&udata);
  log_set_lock(refuse);
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  log_set_screentrace(1);
  testing::internal::CaptureStderr();
  log_log(KV_LOG_LEVEL_INFO, "func", "unit", 1, "dropped");
  const std::string screen = testing::internal::GetCapturedStderr();
  EXPECT_THAT(screen, HasSubstr("dropped"));
  EXPECT_THAT(screen, EndsWith("korvane Anti-Virus: Debug-trace semaphore timeout. Trace line was "
                               "possibly lost!\r\n"));
  EXPECT_EQ(read_whole_file(trace()), "");
  EXPECT_EQ(refused_calls, 1);
}

std::vector<int> actions;
int record(void*, int action) {
  actions.push_back(action);
  return 0;
}

TEST_F(TraceLog, LockIsTakenAndReleasedAroundTheFileLine) {
  actions.clear();
  log_set_lock(record);
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  KV_LOG_INFO("line");
  EXPECT_EQ(actions, (std::vector<int>{1, 0}));
  log_set_filename("");
  log_set_screentrace(1);
  testing::internal::CaptureStderr();
  KV_LOG_INFO("screen only takes no lock");
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(actions.size(), 2U);
}

TEST_F(TraceLog, LockFunctionThatLogsDoesNotGoRoundForEver) {
  log_set_lock([](void*, int) {
    KV_LOG_ERROR("from the lock");
    return 0;
  });
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  KV_LOG_INFO("line");
  EXPECT_THAT(read_whole_file(trace()), HasSubstr("line"));
}

TEST_F(TraceLog, ThreadsWriteWholeLines) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 100; ++i) {
        KV_LOG_INFO("thread %d line %d %s", t, i, std::string(5000, 'x').c_str());
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(whole_lines(trace(), std::string(5000, 'x')), 400);
}

}  // namespace
