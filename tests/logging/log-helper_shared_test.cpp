// The trace file shared by several processes: lock, rotation, and repair after a death.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_time.h"
#include "common/kvsemaphore.h"
#include "logging/log-helper.h"
#include "logging/log-helper_internal.h"
#include "logging/log-helper_test_support.h"

namespace fs = std::filesystem;

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

// A child process that runs a function and ends without the parent's clean-ups.
pid_t start_child(const std::function<void()>& run) {
  const pid_t child = fork();
  if (child == 0) {
    run();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  return child;
}

bool ended_well(pid_t child) {
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct archived_file {
  std::string name;
  unsigned int permissions = 0;
  std::string content;
};

std::vector<archived_file> read_archive(const std::string& path) {
  std::vector<archived_file> files;
  archive* const zip = archive_read_new();
  archive_read_support_format_zip(zip);
  EXPECT_EQ(archive_read_open_filename(zip, path.c_str(), 10240), ARCHIVE_OK);
  archive_entry* entry = nullptr;
  while (archive_read_next_header(zip, &entry) == ARCHIVE_OK) {
    archived_file file{archive_entry_pathname(entry), archive_entry_perm(entry), {}};
    std::vector<char> block(65536);
    for (la_ssize_t size = 0; (size = archive_read_data(zip, block.data(), block.size())) > 0;) {
      file.content.append(block.data(), static_cast<std::size_t>(size));
    }
    files.push_back(file);
  }
  archive_read_free(zip);
  return files;
}

class SharedTrace : public log_test {
 protected:
  SharedTrace() {
    name_ = "kv_log_" + trace();
    std::replace(name_.begin(), name_.end(), '/', '_');
  }
  ~SharedTrace() override {
    KVCloseTraceFile();
    sem_unlink(name_.c_str());
    shm_unlink(("own." + name_).c_str());
  }

  [[nodiscard]] std::vector<std::string> archives() const {
    std::vector<std::string> found;
    for (const auto& file : fs::directory_iterator(folder().path())) {
      if (file.path().extension() == ".zip") {
        found.push_back(file.path());
      }
    }
    return found;
  }
  void open_trace(std::uint64_t maxsize_mb = 0) const {
    ASSERT_EQ(KVOpenTraceFile(trace().c_str(), KV_LOG_LEVEL_INFO, maxsize_mb), 0);
  }
  static sem_t* semaphore() { return static_cast<sem_t*>(log_get_udata()); }
  static int value() {
    int result = -1;
    sem_getvalue(semaphore(), &result);
    return result;
  }
  // A wait that ran into its limit, without the waiting.
  static bool time_out() { return kv_log_owner_timed_out(semaphore(), UINT64_MAX); }

  std::string name_;
};

TEST_F(SharedTrace, OpeningSetsFileLevelLimitAndLockAndClearsScreenTrace) {
  log_set_screentrace(1);
  ASSERT_EQ(KVOpenTraceFile(trace().c_str(), KV_LOG_LEVEL_DEBUG, 7), 0);
  EXPECT_EQ(log_get_level(), KV_LOG_LEVEL_DEBUG);
  EXPECT_EQ(log_get_maxsize(), 7U);
  EXPECT_STREQ(log_get_filename(), trace().c_str());
  sem_t* const by_name = sem_open(name_.c_str(), 0);
  EXPECT_EQ(by_name, log_get_udata()) << "the flattened path names the semaphore";
  sem_close(by_name);
  EXPECT_EQ(value(), 1);
  testing::internal::CaptureStderr();
  KV_LOG_INFO("line");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(read_whole_file(trace()), EndsWith("line\n"));
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, NoPathOrLevelZeroLeavesTheLoggerWithoutAFile) {
  const std::string path = trace();
  struct {
    const char* path;
    std::uint32_t level;
  } const rows[] = {{nullptr, 4}, {"", 4}, {path.c_str(), 0}};
  for (const auto& row : rows) {
    log_set_filename(path.c_str());
    log_set_level(KV_LOG_LEVEL_INFO);
    EXPECT_EQ(KVOpenTraceFile(row.path, row.level, 0), 0);
    EXPECT_EQ(log_get_filename(), nullptr);
    EXPECT_EQ(log_get_level(), KV_LOG_LEVEL_OFF);
    EXPECT_EQ(log_get_udata(), nullptr);
  }
  EXPECT_THAT(read_whole_file(path), HasSubstr("KVOpenTraceFile(): No trace configured\n"));
}

TEST_F(SharedTrace, SemaphoreThatCannotBeOpenedChangesNothing) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  const std::string long_path(300, 'x');
  EXPECT_EQ(KVOpenTraceFile(long_path.c_str(), KV_LOG_LEVEL_DEBUG, 7), -1);
  EXPECT_EQ(log_get_level(), KV_LOG_LEVEL_INFO);
  EXPECT_EQ(log_get_maxsize(), 0U);
  EXPECT_THAT(read_whole_file(trace()),
              HasSubstr("Failed to open semaphore \"kv_log_" + long_path + "\"\n"));
}

TEST_F(SharedTrace, LockFunctionRefusesWhatItDoesNotKnow) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  EXPECT_EQ(KVLogLock(nullptr, 1), -1);
  sem_t other;
  ASSERT_EQ(sem_init(&other, 0, 0), 0);
  EXPECT_EQ(KVLogLock(&other, 2), -1);
  EXPECT_EQ(KVLogLock(&other, 0), 0);
  EXPECT_EQ(KVLogLock(&other, 1), 0);
  sem_destroy(&other);
  const std::string text = read_whole_file(trace());
  EXPECT_THAT(text, HasSubstr("KVLogLock(): Invalid semaphore handle\n"));
  EXPECT_THAT(text, HasSubstr("KVLogLock(): Invalid action parameter value\n"));
}

TEST_F(SharedTrace, ClosedLogStillAppendsWithoutLockAndQuietly) {
  open_trace();
  log_set_quiet(0);
  KVCloseTraceFile();
  EXPECT_EQ(log_get_udata(), nullptr);
  testing::internal::CaptureStderr();
  KV_LOG_INFO("after the end");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(read_whole_file(trace()), EndsWith("after the end\n"));
  sem_t* const left = sem_open(name_.c_str(), 0);
  ASSERT_NE(left, SEM_FAILED);
  int left_value = -1;
  sem_getvalue(left, &left_value);
  EXPECT_EQ(left_value, 1);
  sem_close(left);
  KVCloseTraceFile();
}

TEST_F(SharedTrace, ClosingWhileThreadsLogLosesNoWholeLine) {
  open_trace();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) {
        KV_LOG_INFO("line of a thread end");
      }
    });
  }
  KVCloseTraceFile();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(whole_lines(trace(), "line of a thread end"), 600);
}

TEST_F(SharedTrace, ArchivesAtTheLimitAndNotOneByteBelow) {
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  log_set_maxsize(1);
  write_whole_file(trace(), std::string(999999, 'a'));
  KV_LOG_INFO("still the old file");
  EXPECT_TRUE(archives().empty());
  write_whole_file(trace(), std::string(1000000, 'b'));
  KV_LOG_INFO("first of the new file");
  ASSERT_EQ(archives().size(), 1U);
  EXPECT_THAT(read_whole_file(trace()), EndsWith("first of the new file\n"));
  EXPECT_LT(fs::file_size(trace()), 1000U);
  const auto files = read_archive(archives().front());
  ASSERT_EQ(files.size(), 1U);
  EXPECT_EQ(files[0].name, trace());
  EXPECT_EQ(files[0].permissions, 0644U);
  EXPECT_EQ(files[0].content, std::string(1000000, 'b'));
}

TEST_F(SharedTrace, ArchiveNameIsPathAndLocalTime) {
  setenv("TZ", "UTC-2", 1);
  tzset();
  EXPECT_EQ(kv_log_archive_name("/x/T", 1709640429), "/x/T_2024-03-05__14-07-09.zip");
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(kv_log_archive_name(std::string(5000, 'x').c_str(), 0), "");
}

TEST_F(SharedTrace, SizeCheckAnswersMinusOneSaveForNoPath) {
  EXPECT_EQ(KVLogCheckLogSwitch(nullptr, 1), 0);
  EXPECT_EQ(KVLogCheckLogSwitch(trace().c_str(), 1), -1) << "missing";
  write_whole_file(trace(), "x");
  EXPECT_EQ(KVLogCheckLogSwitch(trace().c_str(), 1), -1);
  EXPECT_TRUE(fs::exists(trace()));
}

TEST_F(SharedTrace, ExistingArchiveIsNeverOverwritten) {
  write_whole_file(trace(), "content");
  std::vector<std::string> taken;
  for (std::time_t second = 0; second < 60; ++second) {
    taken.push_back(kv_log_archive_name(trace().c_str(), std::time(nullptr) + second));
    write_whole_file(taken.back(), "older archive");
  }
  EXPECT_EQ(s_switch_logfile(trace().c_str()), -1);
  EXPECT_EQ(read_whole_file(trace()), "content") << "put off to a later line";
  for (const std::string& name : taken) {
    EXPECT_EQ(read_whole_file(name), "older archive");
    fs::remove(name);
  }
  EXPECT_EQ(s_switch_logfile(trace().c_str()), 0);
  EXPECT_FALSE(fs::exists(trace()));
}

TEST_F(SharedTrace, ArchiveThatCannotBeMadeIsLoggedAndTheFileKept) {
  const std::string due = folder().file(std::string(250, 'x'));  // no room for the longer name
  write_whole_file(due, "content");
  log_set_filename(trace().c_str());
  log_set_level(KV_LOG_LEVEL_INFO);
  EXPECT_EQ(s_switch_logfile(due.c_str()), -1);
  EXPECT_EQ(read_whole_file(due), "content");
  const std::string text = read_whole_file(trace());
  EXPECT_THAT(text, HasSubstr("s_switch_logfile(): Failed to open new archive " + due + "_"));
  EXPECT_THAT(text, EndsWith(".zip for writing\n"));
}

TEST_F(SharedTrace, ProcessesWriteWholeLinesThroughRotations) {
  constexpr int kProcesses = 4;
  constexpr int kLines = 1500;
  const std::string filler(700, 'x');
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(start_child([&] {
      open_trace(1);
      for (int i = 0; i < kLines; ++i) {
        KV_LOG_INFO("process %d line %d %s", p, i, filler.c_str());
      }
    }));
  }
  for (const pid_t child : children) {
    EXPECT_TRUE(ended_well(child));
  }
  EXPECT_FALSE(archives().empty());
  int lines = whole_lines(trace(), filler);
  for (const std::string& path : archives()) {
    for (const archived_file& file : read_archive(path)) {
      const std::string part = folder().file("part");
      write_whole_file(part, file.content);
      lines += whole_lines(part, filler);
    }
  }
  EXPECT_EQ(lines, kProcesses * kLines);
}

TEST_F(SharedTrace, SemaphoreOfALiveHolderIsNeverRepaired) {
  open_trace();
  const pid_t child = start_child([] {
    KVLogLock(semaphore(), 1);
    pause();
  });
  while (value() != 0) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its few instructions afterwards
  for (int round = 0; round < 10; ++round) {
    EXPECT_FALSE(time_out());
  }
  EXPECT_EQ(value(), 0);
  kill(child, SIGKILL);
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
  EXPECT_TRUE(time_out()) << "dead, though its parent has not asked for it yet";
  EXPECT_EQ(value(), 1);
  waitpid(child, nullptr, 0);
  EXPECT_FALSE(time_out()) << "once";
  EXPECT_EQ(value(), 1);
}

// Leaves the semaphore taken by a process that is gone.
void die_holding(bool recorded) {
  const pid_t child = start_child([recorded] {
    auto* const semaphore = static_cast<sem_t*>(log_get_udata());
    if (recorded) {
      KVLogLock(semaphore, 1);
    } else {
      sem_wait(semaphore);
    }
    kill(getpid(), SIGKILL);
  });
  waitpid(child, nullptr, 0);
}

TEST_F(SharedTrace, RepairComesAfterThreeTimeOutsInARow) {
  open_trace();
  die_holding(true);
  EXPECT_FALSE(time_out());
  EXPECT_FALSE(time_out());
  EXPECT_EQ(value(), 0);
  EXPECT_TRUE(time_out());
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, WaitsThatOverlapCountOnce) {
  open_trace();
  die_holding(true);
  EXPECT_FALSE(time_out());
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(kv_log_owner_timed_out(semaphore(), 0)) << "began before the last one ended";
  }
  EXPECT_FALSE(time_out());
  EXPECT_TRUE(time_out());
}

TEST_F(SharedTrace, DeathBeforeTheRecordWasWrittenIsRepairedToo) {
  open_trace();
  die_holding(false);
  EXPECT_FALSE(time_out());
  EXPECT_FALSE(time_out());
  // Somebody else's turn in between: the semaphore was not stuck all the time.
  EXPECT_TRUE(ended_well(start_child([] {
    kv_log_owner_acquired(semaphore());
    EXPECT_TRUE(kv_log_owner_released(semaphore()));
  })));
  EXPECT_FALSE(time_out());
  EXPECT_FALSE(time_out());
  EXPECT_TRUE(time_out());
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, ManyRepairersPostOnce) {
  open_trace();
  die_holding(true);
  std::vector<pid_t> children;
  for (int p = 0; p < 8; ++p) {
    children.push_back(start_child([] {
      for (int round = 0; round < 20; ++round) {
        static_cast<void>(time_out());
      }
    }));
  }
  for (const pid_t child : children) {
    EXPECT_TRUE(ended_well(child));
  }
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, HolderWhoseTurnWasTakenDoesNotPost) {
  open_trace();
  ASSERT_EQ(KVLogLock(semaphore(), 1), 0);
  EXPECT_TRUE(ended_well(start_child([] { kv_log_owner_acquired(semaphore()); })));
  EXPECT_EQ(KVLogLock(semaphore(), 0), 0);
  EXPECT_EQ(value(), 0);
  sem_post(semaphore());
}

TEST_F(SharedTrace, ReleasePostsWhatWasTakenPastTheLock) {
  open_trace();
  ASSERT_EQ(sem_wait(semaphore()), 0);
  EXPECT_EQ(KVLogLock(semaphore(), 0), 0);
  EXPECT_EQ(value(), 1);
  EXPECT_EQ(KVLogLock(semaphore(), 0), 0) << "what nobody took is posted, too";
  EXPECT_EQ(value(), 2);
  ASSERT_EQ(sem_wait(semaphore()), 0);
  KV_LOG_INFO("line");
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, LaterProcessWithTheSameIdIsNotTakenForTheHolder) {
  open_trace();
  ASSERT_EQ(sem_wait(semaphore()), 0);
  const int descriptor = shm_open(("own." + name_).c_str(), O_RDWR, 0);
  ASSERT_GE(descriptor, 0);
  const std::uint64_t other_start = 0xabcdefULL << 22 | static_cast<std::uint64_t>(getpid());
  EXPECT_EQ(pwrite(descriptor, &other_start, sizeof other_start, 0), 8);
  close(descriptor);
  EXPECT_FALSE(time_out());
  EXPECT_FALSE(time_out());
  EXPECT_TRUE(time_out());
  EXPECT_EQ(value(), 1);
}

TEST_F(SharedTrace, KilledHolderSilencesTheOthersForThreeLinesOnly) {
  open_trace();
  die_holding(true);
  testing::internal::CaptureStderr();
  const std::uint64_t start = kv_current_time_ms();
  for (int line = 1; line <= 4; ++line) {
    KV_LOG_INFO("line %d", line);
  }
  EXPECT_GE(kv_elapsed_time_ms(start), 14000U);
  const std::string text = read_whole_file(trace());
  EXPECT_THAT(text, HasSubstr("Trace semaphore was left taken by a process that ended"));
  EXPECT_THAT(text, EndsWith("line 4\n"));
  EXPECT_THAT(text, Not(HasSubstr("line 3")));
  const std::string lost = "Trace line was possibly lost!\r\n";
  const std::string screen = testing::internal::GetCapturedStderr();
  EXPECT_EQ(screen.size(), 3 * (screen.find(lost) + lost.size()));
  EXPECT_EQ(value(), 1);
}

}  // namespace
