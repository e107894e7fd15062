#include "logging/kv_pqueue.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

namespace fs = std::filesystem;

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// Dates a file, in seconds relative to now.
void set_age(const std::string& path, long seconds) {
  const timespec times[2] = {{std::time(nullptr) - seconds, 0}, {std::time(nullptr) - seconds, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

std::size_t file_count(const std::string& folder) {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

class kv_pqueue : public testing::Test {
 protected:
  kv_pqueue_ptr open_queue(int flags = O_CREAT, std::int64_t max_entries = 100,
                           std::int64_t max_bytes = 100000, std::int32_t mode = 1) {
    return kv_pqueue_ptr{
        kv_pqueue_open(folder_.path().c_str(), "q", max_entries, max_bytes, flags, mode)};
  }
  static int push(const kv_pqueue_ptr& queue, char type, std::string_view text) {
    return kv_pqueue_push(queue.get(), type, text.data(), text.size());
  }
  static std::string pop_text(const kv_pqueue_ptr& queue, char type) {
    const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), type)};
    return entry ? std::string(reinterpret_cast<const char*>(entry->data), entry->size) : "<none>";
  }
  [[nodiscard]] std::string data() const { return folder_.file("q/data"); }

  temp_dir folder_;
};

}  // namespace

TEST_F(kv_pqueue, CreationLaysOutDirectoriesAndControlFile) {
  const trace_capture trace;
  const mode_t before = umask(022);
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 10000, 50000000, 1);
  ASSERT_TRUE(queue);
  EXPECT_EQ(read_file(folder_.file("q/control")), "10000\n50000000\n1\n");
  struct stat status {};
  ASSERT_EQ(stat(folder_.file("q").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0770U);
  ASSERT_EQ(stat(data().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0770U);
  EXPECT_EQ(umask(before), 022U) << "the umask is restored";
  EXPECT_STREQ(queue->lock_name, "kv_q");
  EXPECT_EQ(queue->lock_fd, -1);
  EXPECT_EQ(trace.count("TRACE", "Created "), 3);
}

TEST_F(kv_pqueue, AnExistingQueueKeepsTheLimitsOfItsControlFile) {
  static_cast<void>(open_queue(O_CREAT, 5, 600, 7));
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 10000, 50000000, 1);
  ASSERT_TRUE(queue);
  EXPECT_EQ(queue->max_entries, 5);
  EXPECT_EQ(queue->max_bytes, 600);
  EXPECT_EQ(queue->mode, 7);
  EXPECT_EQ(trace.count("DEBUG", "exists and is accessible"), 1);
  EXPECT_EQ(trace.count("DEBUG", "opened"), 1);
}

TEST_F(kv_pqueue, FlagsDecideWhetherAnExistingQueueIsEmptied) {
  struct row {
    int flags;
    bool emptied;
  };
  for (const auto& [flags, emptied] :
       {row{O_CREAT, false}, row{0, true}, row{O_TRUNC, true}, row{O_CREAT | O_TRUNC, false}}) {
    const kv_pqueue_ptr first = open_queue();
    ASSERT_TRUE(first);
    ASSERT_EQ(push(first, 'L', "kept?"), 0);
    const trace_capture trace;
    const kv_pqueue_ptr again = open_queue(flags);
    ASSERT_TRUE(again);
    EXPECT_EQ(pop_text(again, 'L') == "<none>", emptied) << flags;
    EXPECT_EQ(trace.count("Flag O_TRUNC passed, truncating queue "), emptied ? 1 : 0) << flags;
    ASSERT_EQ(kv_pqueue_purge(again.get()), 0);
  }
}

TEST_F(kv_pqueue, AMissingQueueIsMadeOnlyWithoutForeignFlags) {
  for (const int flags : {O_TRUNC, O_CREAT | O_TRUNC, O_EXCL}) {
    errno = 0;
    EXPECT_FALSE(open_queue(flags)) << flags;
    EXPECT_EQ(errno, ENOENT) << flags;
  }
  EXPECT_TRUE(open_queue(0)) << "no flag at all creates";
}

TEST_F(kv_pqueue, AFileInTheQueuesPlaceIsRefused) {
  write_file(folder_.file("q"), "not a directory");
  const trace_capture trace;
  EXPECT_FALSE(open_queue());
  EXPECT_EQ(trace.count("ERROR", "not writable - check permissions"), 1);
}

TEST_F(kv_pqueue, AQueueThatCannotBeMadeGivesNull) {
  const trace_capture trace;
  const mode_t before = umask(022);
  EXPECT_EQ(kv_pqueue_open("/proc", "q", 1, 1, O_CREAT, 0), nullptr);
  umask(before);
  EXPECT_EQ(trace.count("ERROR", "Failed to create /proc/q: "), 1);
}

TEST_F(kv_pqueue, ANullNameIsRefused) {
  const trace_capture trace;
  EXPECT_EQ(kv_pqueue_open(folder_.path().c_str(), nullptr, 1, 1, O_CREAT, 0), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameters"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to create new queue metadata"), 1);
}

TEST_F(kv_pqueue, ADamagedControlFileLeavesTheCallersLimits) {
  static_cast<void>(open_queue());
  const std::string control = folder_.file("q/control");
  for (const std::string text : {"", "5\n", "5\n600\n"}) {
    write_file(control, text);
    const trace_capture trace;
    const kv_pqueue_ptr queue = open_queue(O_CREAT, 42, 4200, 3);
    ASSERT_TRUE(queue) << text;
    EXPECT_EQ(queue->max_entries, 42) << text;
    EXPECT_EQ(queue->max_bytes, 4200) << text;
    EXPECT_EQ(trace.count("ERROR", "s_read_controlfile(): failed to read control file "), 1);
    EXPECT_EQ(trace.count("ERROR", "Failed to read controlfile"), 1);
  }
  fs::remove(control);
  const trace_capture trace;
  EXPECT_TRUE(open_queue());
  EXPECT_EQ(trace.count("ERROR", "s_read_controlfile(): failed to open control file "), 1);
}

// As a process leaves it that is killed while it makes or purges the queue.
TEST_F(kv_pqueue, AHalfMadeQueueIsCompleted) {
  const std::string control = folder_.file("q/control");
  for (const std::string& missing : {control, data()}) {
    static_cast<void>(open_queue());
    fs::remove(missing);
    const kv_pqueue_ptr queue = open_queue();
    ASSERT_TRUE(queue) << missing;
    EXPECT_EQ(push(queue, 'L', "text"), 0) << missing;
    EXPECT_EQ(kv_pqueue_lock(queue.get()), 0) << missing;
    EXPECT_EQ(read_file(control), "100\n100000\n1\n");
    fs::remove_all(folder_.file("q"));
  }
}

TEST_F(kv_pqueue, AFailedCreationLeavesNothingBehind) {
  // As on a full disk: directories can be made, files stay empty.
  const rlimit none{0, RLIM_INFINITY};
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  const mode_t mask = umask(022);
  EXPECT_EQ(open_queue(), nullptr);
  umask(mask);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  signal(SIGXFSZ, handler);
  EXPECT_FALSE(fs::exists(folder_.file("q")));
  EXPECT_TRUE(open_queue());
}

TEST_F(kv_pqueue, PushedBytesComeBackAsTheyAre) {
  const kv_pqueue_ptr queue = open_queue();
  const std::string bytes("a\0b\xff\n", 5);
  ASSERT_EQ(push(queue, 'E', bytes), 0);
  const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'E')};
  ASSERT_TRUE(entry);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(entry->data), entry->size), bytes);
  EXPECT_EQ(entry->data[entry->size], 0);
  EXPECT_EQ(entry->type, 'E');
  EXPECT_EQ(read_file(entry->path), bytes);
  EXPECT_THAT(std::string(entry->path),
              testing::MatchesRegex(data() + "/E[0-9a-f]+-[0-9a-f]+-[0-9a-f]+-[0-9a-f]+-[0-9a-f]+"
                                             "\\.dat"));
  EXPECT_EQ(queue->entry_count, 1);
  EXPECT_EQ(queue->byte_count, 5);
}

TEST_F(kv_pqueue, PushRefusesMissingData) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue();
  EXPECT_EQ(kv_pqueue_push(nullptr, 'L', "x", 1), -1);
  EXPECT_EQ(kv_pqueue_push(queue.get(), 'L', nullptr, 1), -1);
  EXPECT_EQ(kv_pqueue_push(queue.get(), 'L', "x", 0), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameters"), 3);
}

TEST_F(kv_pqueue, AFullQueueDropsTheNewMessageEachTime) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 2, 1000);
  ASSERT_EQ(push(queue, 'L', "1"), 0);
  ASSERT_EQ(push(queue, 'E', "22"), 0);
  EXPECT_EQ(push(queue, 'L', "3"), -1);
  EXPECT_EQ(push(queue, 'L', "3"), -1);
  EXPECT_EQ(trace.count("WARN", "Queue full: 2 Elements (max 2), 3 bytes (max 1000)"), 2);
  EXPECT_EQ(file_count(data()), 2u);
}

TEST_F(kv_pqueue, TheByteLimitCountsTheNewMessage) {
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 100, 10);
  EXPECT_EQ(push(queue, 'L', "12345"), 0);
  EXPECT_EQ(push(queue, 'L', "123456"), -1);
  EXPECT_EQ(push(queue, 'L', "12345"), 0);
  EXPECT_EQ(push(queue, 'L', "1"), -1);
}

TEST_F(kv_pqueue, AFailedPushLeavesNoFileBehind) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue();
  fs::remove_all(data());
  EXPECT_EQ(push(queue, 'L', "nowhere to go"), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to write buffer to file "), 1);
  EXPECT_FALSE(fs::exists(data()));
}

TEST_F(kv_pqueue, HalfWrittenEntriesAreNeverDeliveredButCount) {
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 1);
  write_file(data() + "/temp_Lhalf.dat", "half");
  EXPECT_EQ(pop_text(queue, 'L'), "<none>");
  EXPECT_EQ(push(queue, 'L', "x"), -1) << "it counts against the limit";
  kv_pqueue_stat_t stat{};
  ASSERT_EQ(kv_pqueue_get_stat(queue.get(), &stat), 0);
  EXPECT_EQ(stat.entries, 1);
  EXPECT_EQ(stat.bytes, 4);
  EXPECT_EQ(stat.temp_entries, 1);
}

TEST_F(kv_pqueue, PopTakesTheOldestOfItsType) {
  const kv_pqueue_ptr queue = open_queue();
  for (const auto& [name, age] : {std::pair{"Lmiddle", 20L}, {"Loldest", 30L}, {"Eolder", 40L}}) {
    write_file(data() + "/" + name, name);
    set_age(data() + "/" + name, age);
  }
  EXPECT_EQ(pop_text(queue, 'L'), "Loldest");
  EXPECT_EQ(pop_text(queue, 'E'), "Eolder");
  fs::remove(data() + "/Loldest");
  EXPECT_EQ(pop_text(queue, 'L'), "Lmiddle");
}

TEST_F(kv_pqueue, EntriesOfOneSecondComeInDirectoryOrder) {
  const kv_pqueue_ptr queue = open_queue();
  for (const std::string name : {"La", "Lb", "Lc", "Ld"}) {
    write_file(data() + "/" + name, name);
    set_age(data() + "/" + name, 10);
  }
  const std::string first = fs::directory_iterator(data())->path().filename();
  EXPECT_EQ(pop_text(queue, 'L'), first);
}

TEST_F(kv_pqueue, AnEntryOfTheFutureIsNotPopped) {
  const kv_pqueue_ptr queue = open_queue();
  write_file(data() + "/Lfuture", "later");
  set_age(data() + "/Lfuture", -3600);
  EXPECT_EQ(pop_text(queue, 'L'), "<none>");
}

TEST_F(kv_pqueue, AnEntryStaysUntilItIsUnlinked) {
  const kv_pqueue_ptr queue = open_queue();
  ASSERT_EQ(push(queue, 'L', "again"), 0);
  EXPECT_EQ(pop_text(queue, 'L'), "again");
  EXPECT_EQ(pop_text(queue, 'L'), "again");
}

TEST_F(kv_pqueue, PopKnowsTwoTypes) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue();
  for (const char type : {'X', 'l', '\0', 't'}) {
    EXPECT_EQ(kv_pqueue_pop(queue.get(), type), nullptr);
  }
  EXPECT_EQ(trace.count("ERROR", "Invalid prefix filter"), 4);
  EXPECT_EQ(kv_pqueue_pop(nullptr, 'L'), nullptr);
}

TEST_F(kv_pqueue, FoldersAndForeignFilesInTheDataDirectoryAreNoEntries) {
  const kv_pqueue_ptr queue = open_queue();
  fs::create_directory(data() + "/Lfolder");
  write_file(data() + "/README", "foreign");
  EXPECT_EQ(pop_text(queue, 'L'), "<none>");
  EXPECT_EQ(pop_text(queue, 'E'), "<none>");
  EXPECT_EQ(queue->entry_count, 1) << "a foreign file counts, a folder does not";
}

TEST_F(kv_pqueue, AnEmptyEntryIsPoppedWithoutBytes) {
  const kv_pqueue_ptr queue = open_queue();
  write_file(data() + "/Lempty", "");
  const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'L')};
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->size, 0u);
  EXPECT_EQ(entry->data[0], 0);
}

TEST_F(kv_pqueue, AnUnreadableDataDirectoryGivesNothing) {
  const kv_pqueue_ptr queue = open_queue();
  fs::remove_all(data());
  EXPECT_EQ(kv_pqueue_pop(queue.get(), 'L'), nullptr);
  kv_pqueue_stat_t stat{};
  EXPECT_EQ(kv_pqueue_get_stat(queue.get(), &stat), -1);
}

TEST_F(kv_pqueue, TheLockExcludesOtherProcesses) {
  const kv_pqueue_ptr queue = open_queue();
  ASSERT_EQ(kv_pqueue_lock(queue.get()), 0);
  const auto try_lock_elsewhere = [this] {
    const pid_t child = fork();
    if (child == 0) {
      const kv_pqueue_ptr other = open_queue();
      _exit(kv_pqueue_lock(other.get()) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
  };
  EXPECT_EQ(try_lock_elsewhere(), 1);
  ASSERT_EQ(kv_pqueue_unlock(queue.get()), 0);
  EXPECT_EQ(try_lock_elsewhere(), 0);
}

TEST_F(kv_pqueue, TheLockGoesWithItsProcess) {
  const kv_pqueue_ptr queue = open_queue();
  const pid_t child = fork();
  if (child == 0) {
    const kv_pqueue_ptr other = open_queue();
    _exit(kv_pqueue_lock(other.get()));  // dies holding it
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(kv_pqueue_lock(queue.get()), 0);
  EXPECT_EQ(kv_pqueue_unlock(queue.get()), 0);
}

TEST_F(kv_pqueue, AFailedLockDisturbsNoHolderInThisProcess) {
  const kv_pqueue_ptr holder = open_queue();
  const kv_pqueue_ptr other = open_queue();
  ASSERT_EQ(kv_pqueue_lock(holder.get()), 0);
  EXPECT_EQ(kv_pqueue_lock(other.get()), -1);
  EXPECT_EQ(kv_pqueue_lock(holder.get()), -1);
  EXPECT_EQ(kv_pqueue_unlock(holder.get()), 0);
  EXPECT_EQ(kv_pqueue_lock(other.get()), 0);
  EXPECT_EQ(kv_pqueue_unlock(other.get()), 0);
}

TEST_F(kv_pqueue, UnlockingWhatIsNotLockedFails) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue();
  EXPECT_EQ(kv_pqueue_unlock(queue.get()), -1);
  EXPECT_EQ(kv_pqueue_unlock(nullptr), -1);
  EXPECT_EQ(trace.count("TRACE", "queue unlock FAILED"), 2);
  ASSERT_EQ(kv_pqueue_lock(queue.get()), 0);
  ASSERT_EQ(kv_pqueue_unlock(queue.get()), 0);
  EXPECT_EQ(trace.count("TRACE", "queue unlocked"), 1);
}

TEST_F(kv_pqueue, LockNeedsItsControlFile) {
  const trace_capture trace;
  const kv_pqueue_ptr queue = open_queue();
  fs::remove(folder_.file("q/control"));
  EXPECT_EQ(kv_pqueue_lock(queue.get()), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to open "), 1);
}

TEST_F(kv_pqueue, PurgeEmptiesTheQueueAndRewritesItsControlFile) {
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 9, 900, 2);
  ASSERT_EQ(push(queue, 'L', "gone"), 0);
  write_file(data() + "/temp_Lhalf.dat", "gone too");
  write_file(folder_.file("q/control"), "rubbish");
  ASSERT_EQ(kv_pqueue_purge(queue.get()), 0);
  EXPECT_EQ(file_count(data()), 0u);
  EXPECT_EQ(queue->entry_count, 0);
  EXPECT_EQ(queue->byte_count, 0);
  EXPECT_EQ(read_file(folder_.file("q/control")), "9\n900\n2\n");
  EXPECT_EQ(kv_pqueue_lock(queue.get()), 0) << "the queue is not left locked";
  EXPECT_EQ(kv_pqueue_unlock(queue.get()), 0);
  EXPECT_EQ(kv_pqueue_purge(nullptr), -1);
}

TEST_F(kv_pqueue, CloseAndDataFreeRefuseNull) {
  EXPECT_EQ(kv_pqueue_close(nullptr), -1);
  EXPECT_EQ(kv_pqueue_data_free(nullptr), -1);
}

TEST_F(kv_pqueue, ThreadsPushAtOnceWithoutLosingAnything) {
  const kv_pqueue_ptr queue = open_queue(O_CREAT, 1000);
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const kv_pqueue_ptr own = open_queue();
      for (int i = 0; i < kEach; ++i) {
        ASSERT_EQ(push(own, 'L', std::to_string(t * kEach + i)), 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<bool> seen(kThreads * kEach);
  while (const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'L')}) {
    seen.at(std::stoul(reinterpret_cast<const char*>(entry->data))) = true;
    ASSERT_EQ(unlink(entry->path), 0);
  }
  EXPECT_THAT(seen, testing::Each(true));
}
