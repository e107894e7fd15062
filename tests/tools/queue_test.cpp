// Runs kv-av-queue as an operator would.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "logging/kv_pqueue.h"
#include "support/temp_dir.h"

namespace {

struct outcome {
  int status;
  std::string output;  // standard output and error
};

class queue_program : public testing::Test {
 protected:
  void SetUp() override {
    queue_.reset(kv_pqueue_open(folder_.path().c_str(), "q", 10, 1000, O_CREAT, 1));
    ASSERT_TRUE(queue_);
    push('L', "a log");
    push('E', "an event");
  }
  void push(char type, std::string_view text) {
    ASSERT_EQ(kv_pqueue_push(queue_.get(), type, text.data(), text.size()), 0);
  }
  // Runs the program with a shell's words; input is what the operator types.
  [[nodiscard]] outcome run(const std::string& words, const std::string& input = "") const {
    const std::string command =
        "printf '" + input + "' | " + KV_QUEUE_PROGRAM + " " + words + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> block{};
    while (const std::size_t count = fread(block.data(), 1, block.size(), pipe)) {
      output.append(block.data(), count);
    }
    return {WEXITSTATUS(pclose(pipe)), output};
  }
  [[nodiscard]] std::string queue() const { return folder_.file("q"); }
  [[nodiscard]] long entries() const {
    kv_pqueue_stat_t stat{};
    return kv_pqueue_get_stat(queue_.get(), &stat) == 0 ? stat.entries : -1;
  }
  void write_temp(const std::string& name, long age_seconds) const {
    const std::string path = queue() + "/data/" + name;
    std::ofstream(path) << "half";
    const std::time_t time = std::time(nullptr) - age_seconds;
    const timespec times[2] = {{time, 0}, {time, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  temp_dir folder_;
  kv_pqueue_ptr queue_;
};

}  // namespace

TEST_F(queue_program, CountsAsTableAndAsJson) {
  const outcome table = run("count " + queue());
  EXPECT_EQ(table.status, 0);
  EXPECT_NE(table.output.find("logs    1\nevents  1\nothers  0\nbytes   13\n"), std::string::npos);
  EXPECT_EQ(run("count --json " + queue()).output,
            "{\"logs\":1,\"events\":1,\"others\":0,\"bytes\":13,\"max_entries\":10,"
            "\"max_bytes\":1000}\n");
}

TEST_F(queue_program, ListsAndShowsEntries) {
  const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue_.get(), 'L')};
  const std::string name = std::filesystem::path(entry->path).filename();
  const outcome list = run("list --json " + queue());
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.output.find("{\"name\":\"" + name +
                             "\",\"type\":\"L\",\"temporary\":false,"
                             "\"size\":5,"),
            std::string::npos);
  EXPECT_NE(run("list " + queue()).output.find("  L          5  " + name), std::string::npos);
  EXPECT_EQ(run("show " + queue() + " " + name).output, "a log");
}

TEST_F(queue_program, ShowReadsNothingOutsideTheQueue) {
  EXPECT_EQ(run("show " + queue() + " ../control").status, 2);
  EXPECT_EQ(run("show " + queue() + " missing").status, 2);
}

TEST_F(queue_program, PurgeAsksTwice) {
  EXPECT_EQ(run("purge " + queue(), "no\\n").status, 2);
  EXPECT_EQ(run("purge " + queue(), "yes\\nno\\n").status, 2);
  EXPECT_EQ(run("purge --yes " + queue(), "yes\\n").status, 2);
  EXPECT_EQ(entries(), 2);
  EXPECT_EQ(run("purge " + queue(), "yes\\nyes\\n").status, 0);
  EXPECT_EQ(entries(), 0);
}

TEST_F(queue_program, PurgeTakesTwoConfirmationsFromItsCommandLine) {
  const outcome purge = run("purge --yes --yes " + queue());
  EXPECT_EQ(purge.status, 0);
  EXPECT_EQ(purge.output, "2 entries removed\n");
  EXPECT_EQ(entries(), 0);
}

TEST_F(queue_program, PurgeIsRefusedWhileAWorkerHoldsTheQueue) {
  ASSERT_EQ(kv_pqueue_lock(queue_.get()), 0);
  const outcome purge = run("purge --yes --yes " + queue());
  EXPECT_EQ(purge.status, 2);
  EXPECT_NE(purge.output.find("is held by a worker"), std::string::npos);
  EXPECT_EQ(run("count " + queue()).status, 0) << "reading is allowed";
  EXPECT_EQ(entries(), 2);
  EXPECT_EQ(kv_pqueue_unlock(queue_.get()), 0);
}

TEST_F(queue_program, PurgeTempRemovesOldHalfWrittenEntriesOnly) {
  write_temp("temp_Lold.dat", 25 * 60 * 60);
  write_temp("temp_Lnew.dat", 60);
  const outcome purge = run("purge --temp --yes --yes " + queue());
  EXPECT_EQ(purge.output, "1 entries removed\n");
  EXPECT_EQ(entries(), 3);
  EXPECT_FALSE(std::filesystem::exists(queue() + "/data/temp_Lold.dat"));
}

TEST_F(queue_program, AFolderThatIsNoQueueIsAnError) {
  EXPECT_EQ(run("list " + folder_.path()).status, 2);
  EXPECT_EQ(run("purge --yes --yes " + folder_.path()).status, 2);
}

TEST_F(queue_program, NamesAreSafeOnATerminal) {
  write_temp("L\x1b[31mred", 10);
  EXPECT_EQ(run("list " + queue()).output.find('\x1b'), std::string::npos);
}
