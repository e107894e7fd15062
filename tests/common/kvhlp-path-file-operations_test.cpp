#include "common/kvhlp-path-file-operations.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "common/kv_guard.h"
#include "common/kv_time.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace fs = std::filesystem;

namespace {

class PathFile : public testing::Test {
 protected:
  [[nodiscard]] std::string in(const std::string& name) const { return folder_.file(name); }
  temp_dir folder_;
};

TEST_F(PathFile, NormalizeCollapsesRunsOfSlashes) {
  struct {
    const char* path;
    const char* normalized;
  } const rows[] = {{"a//b///c", "a/b/c"}, {"", ""},         {"/", "/"},          {"////", "/"},
                    {"a/b", "a/b"},        {"//a//", "/a/"}, {"a/../b", "a/../b"}};
  for (const auto& row : rows) {
    EXPECT_STREQ(kv_text_ptr{kvhlp_unix_path_normalize(row.path)}.get(), row.normalized);
  }
  EXPECT_EQ(kvhlp_unix_path_normalize(nullptr), nullptr);
}

TEST_F(PathFile, FlattenReplacesSlashesAndLogs) {
  const trace_capture trace;
  EXPECT_STREQ(kvhlp_FlattenPath("/var/run/x"), "_var_run_x");
  EXPECT_EQ(trace.count("DEBUG", "Flattened \"/var/run/x\" to \"_var_run_x\""), 1);
  EXPECT_EQ(kvhlp_FlattenPath(nullptr), nullptr);
  EXPECT_EQ(kvhlp_FlattenPath(""), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Invalid path argument provided"), 2);
}

TEST_F(PathFile, FlattenCutsAfter4096Characters) {
  EXPECT_EQ(kvhlp_FlattenPath(std::string(4095, '/').c_str()), std::string(4095, '_'));
  EXPECT_EQ(kvhlp_FlattenPath(std::string(4096, '/').c_str()), std::string(4096, '_'));
  EXPECT_EQ(kvhlp_FlattenPath(std::string(9000, '/').c_str()), std::string(4096, '_'));
}

TEST_F(PathFile, FlattenedBufferBelongsToTheThread) {
  const char* const mine = kvhlp_FlattenPath("/mine");
  std::thread([] { EXPECT_STREQ(kvhlp_FlattenPath("/theirs"), "_theirs"); }).join();
  EXPECT_STREQ(mine, "_mine");
}

TEST_F(PathFile, QuestionsAboutFilesAndFolders) {
  write_whole_file(in("f"), "12345");
  fs::create_symlink("f", in("link"));
  fs::create_symlink("nowhere", in("dangling"));
  struct {
    std::string path;
    int file, dir, regular;
  } const rows[] = {{in("f"), 1, 0, 1},        {in("link"), 1, 0, 1}, {folder_.path(), 1, 1, 0},
                    {in("dangling"), 0, 0, 0}, {in("none"), 0, 0, 0}, {"", 0, 0, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(kvhlp_IsFile(row.path.c_str()), row.file) << row.path;
    EXPECT_EQ(kvhlp_IsDir(row.path.c_str()), row.dir) << row.path;
    EXPECT_EQ(kvhlp_IsRegularFile(row.path.c_str()), row.regular) << row.path;
  }
  EXPECT_EQ(kvhlp_IsFile(nullptr), 0);
  EXPECT_EQ(kvhlp_IsDir(nullptr), 0);
  EXPECT_EQ(kvhlp_IsRegularFile(nullptr), 0);
  EXPECT_EQ(kvhlp_IsRegularFileD(folder_.path().c_str(), "f"), 1);
  EXPECT_EQ(kvhlp_IsRegularFileD(folder_.path().c_str(), "g"), 0);
  EXPECT_EQ(kvhlp_IsRegularFileD(nullptr, "f"), 0);
  EXPECT_EQ(kvhlp_IsWritable(in("f").c_str()), 1);
  EXPECT_EQ(kvhlp_IsWritable(in("none").c_str()), 0);
}

TEST_F(PathFile, SizeAndTime) {
  write_whole_file(in("f"), "12345");
  std::uint64_t size = 0;
  EXPECT_EQ(kvhlp_GetFileSize(in("f").c_str(), &size), 0);
  EXPECT_EQ(size, 5U);
  EXPECT_EQ(kvhlp_GetFileSize(in("none").c_str(), &size), -1);
  EXPECT_EQ(kvhlp_GetFileSize(in("f").c_str(), nullptr), -1);
  struct stat status {};
  ASSERT_EQ(stat(in("f").c_str(), &status), 0);
  EXPECT_EQ(kvhlp_get_file_mtime(folder_.path().c_str(), "f"), status.st_mtime);
  ASSERT_EQ(stat(folder_.path().c_str(), &status), 0);
  EXPECT_EQ(kvhlp_get_dir_mtime(folder_.path().c_str()), status.st_mtime);
  EXPECT_EQ(kvhlp_get_file_mtime(folder_.path().c_str(), "none"), 0);
}

TEST_F(PathFile, IntValuesAreStoredAndRead) {
  for (const int value : {0, 42, -7, INT_MAX, INT_MIN}) {
    ASSERT_EQ(kvhlp_StoreIntValue(in("n").c_str(), value), 0);
    EXPECT_EQ(read_whole_file(in("n")), std::to_string(value));
    EXPECT_EQ(kvhlp_ReadIntValue(in("n").c_str(), 0), value);
  }
  write_whole_file(in("n"), "12\n34");
  EXPECT_EQ(kvhlp_ReadIntValue(in("n").c_str(), 0), 12);
  write_whole_file(in("n"), "text");
  EXPECT_EQ(kvhlp_ReadIntValue(in("n").c_str(), 0), 0);
  write_whole_file(in("n"), "99999999999999999999");
  EXPECT_EQ(kvhlp_ReadIntValue(in("n").c_str(), 0), INT_MAX);
  EXPECT_EQ(kvhlp_StoreIntValue(in("no/dir").c_str(), 1), -1);
}

TEST_F(PathFile, ReadingAnIntValueWaitsForAMissingFileOnly) {
  write_whole_file(in("f"), "1");
  std::uint64_t start = kv_current_time_ms();
  EXPECT_EQ(kvhlp_ReadIntValue(in("none").c_str(), 0), 0);
  EXPECT_EQ(kvhlp_ReadIntValue(in("f/below").c_str(), 5), -1) << "no missing file, but no folder";
  EXPECT_LT(kv_elapsed_time_ms(start), 4000U);
  start = kv_current_time_ms();
  EXPECT_EQ(kvhlp_ReadIntValue(in("none").c_str(), 1), 0);
  EXPECT_GE(kv_elapsed_time_ms(start), 1000U);
  std::thread writer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(kvhlp_StoreIntValue(in("later").c_str(), 5), 0);
  });
  EXPECT_EQ(kvhlp_ReadIntValue(in("later").c_str(), 10), 5);
  writer.join();
}

TEST_F(PathFile, RemoveDirTakesATreeAndLeavesWhatLinksPointAt) {
  fs::create_directories(in("tree/a/b"));
  write_whole_file(in("tree/a/f"), "x");
  write_whole_file(in("kept"), "x");
  fs::create_symlink(in("kept"), in("tree/link"));
  EXPECT_EQ(kvhlp_RemoveDir(in("tree").c_str()), 0);
  EXPECT_FALSE(fs::exists(in("tree")));
  EXPECT_TRUE(fs::exists(in("kept")));
  EXPECT_EQ(kvhlp_RemoveDir(in("kept").c_str()), -1) << "no folder";
  EXPECT_EQ(kvhlp_RemoveDir(in("tree").c_str()), -1) << "gone";
  EXPECT_EQ(kvhlp_RemoveDir(""), -1);
}

TEST_F(PathFile, CopiesAFileWithItsPermissions) {
  write_whole_file(in("from"), std::string(100000, 'x'));
  fs::permissions(in("from"), fs::perms::owner_all);
  write_whole_file(in("to"), "old");
  EXPECT_EQ(copy_file(in("from").c_str(), in("to").c_str()), 0);
  EXPECT_EQ(read_whole_file(in("to")), read_whole_file(in("from")));
  EXPECT_EQ(fs::status(in("to")).permissions(), fs::perms::owner_all);
  EXPECT_EQ(copy_file(in("none").c_str(), in("to").c_str()), -1);
  EXPECT_EQ(copy_file(in("from").c_str(), in("no/dir").c_str()), -1);
  EXPECT_EQ(copy_file(nullptr, "x"), -1);
}

TEST_F(PathFile, CopiesATreeButNotIntoItself) {
  fs::create_directories(in("tree/a/b"));
  write_whole_file(in("tree/a/f"), "x");
  fs::create_symlink("a/f", in("tree/link"));
  EXPECT_EQ(copy_dir_recursive(in("tree").c_str(), in("copy").c_str()), 0);
  EXPECT_EQ(read_whole_file(in("copy/a/f")), "x");
  EXPECT_TRUE(fs::is_directory(in("copy/a/b")));
  EXPECT_TRUE(fs::is_symlink(in("copy/link")));
  EXPECT_EQ(copy_dir_recursive(in("tree").c_str(), in("tree/a/inner").c_str()), -1);
  EXPECT_EQ(copy_dir_recursive(in("tree").c_str(), in("tree").c_str()), -1);
  EXPECT_EQ(copy_dir_recursive(in("tree/a/f").c_str(), in("other").c_str()), -1);
  EXPECT_EQ(copy_dir_recursive(in("none").c_str(), in("other").c_str()), -1);
  EXPECT_EQ(copy_dir_recursive(in("tree").c_str(), in("treetop").c_str()), 0) << "a common prefix";
}

TEST_F(PathFile, CreatesOneDirectoryWithItsMode) {
  EXPECT_EQ(kvhlp_create_dir(in("d").c_str(), 0700), 0);
  EXPECT_EQ(fs::status(in("d")).permissions(), fs::perms::owner_all);
  EXPECT_EQ(kvhlp_create_dir(in("d").c_str(), 0700), 0) << "exists";
  write_whole_file(in("f"), "x");
  EXPECT_EQ(kvhlp_create_dir(in("f").c_str(), 0700), -1);
  EXPECT_EQ(kvhlp_create_dir(in("no/d").c_str(), 0700), -1);
  EXPECT_EQ(kvhlp_create_dir(nullptr, 0700), -1);
}

TEST_F(PathFile, CreatesEveryMissingDirectoryOfAPath) {
  for (const auto make : {kvhlp_mkdirhier, kvhlp_create_dir_path}) {
    for (const char* const path : {"a/b/c", "x//y/", "z"}) {
      EXPECT_EQ(make(in(path).c_str()), 0) << path;
      EXPECT_EQ(kvhlp_IsDir(in(path).c_str()), 1) << path;
    }
    write_whole_file(in("f"), "x");
    EXPECT_EQ(make(in("f/b").c_str()), -1);
    EXPECT_EQ(make(""), -1);
    EXPECT_EQ(make(nullptr), -1);
    fs::remove_all(in("a"));
  }
}

TEST_F(PathFile, ExpandsLikeAShellWithoutRunningAnything) {
  setenv("KV_TEST_DIR", "/some where", 1);
  const trace_capture trace;
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("$KV_TEST_DIR/x")}.get(), "/somewhere/x")
      << "words are joined without separators";
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("\"$KV_TEST_DIR/x\"")}.get(), "/some where/x");
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("$(id)")}.get(), "$(id)");
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("`id`")}.get(), "`id`");
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("a|b")}.get(), "a|b");
  EXPECT_STREQ(kv_text_ptr{kvhlp_expand_path("")}.get(), "");
  EXPECT_EQ(kvhlp_expand_path(nullptr), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Expansion failed: "), 3);
  EXPECT_EQ(trace.count("TRACE", "Expanding path: $KV_TEST_DIR/x"), 1);
  EXPECT_EQ(trace.count("TRACE", "Expanded path: /somewhere/x"), 1);
}

}  // namespace
