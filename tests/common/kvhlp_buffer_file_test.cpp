#include "common/kvhlp_buffer_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/temp_dir.h"

namespace {

TEST(BufferFile, WritesAndReadsExactlyTheBytes) {
  const temp_dir folder;
  const std::string path = folder.file("f");
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{3000000}}) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
      bytes[i] = static_cast<char>(i * 31);
    }
    ASSERT_EQ(kvhlp_dump_buffer_to_file(bytes.data(), length, path.c_str()), 0);
    EXPECT_EQ(read_whole_file(path), bytes);
    std::string back(length, 'x');
    EXPECT_EQ(kvhlp_read_buffer_from_file(back.data(), length, path.c_str()), 0);
    EXPECT_EQ(back, bytes);
  }
}

TEST(BufferFile, ReplacesALongerFile) {
  const temp_dir folder;
  write_whole_file(folder.file("f"), "something long");
  EXPECT_EQ(kvhlp_dump_buffer_to_file("ab", 2, folder.file("f").c_str()), 0);
  EXPECT_EQ(read_whole_file(folder.file("f")), "ab");
}

TEST(BufferFile, ShortFileIsAnError) {
  const temp_dir folder;
  write_whole_file(folder.file("f"), "abc");
  char buffer[4];
  EXPECT_EQ(kvhlp_read_buffer_from_file(buffer, 2, folder.file("f").c_str()), 0);
  EXPECT_EQ(kvhlp_read_buffer_from_file(buffer, 4, folder.file("f").c_str()), -1);
  EXPECT_EQ(errno, EIO);
}

TEST(BufferFile, FailuresOfTheSystemAreReported) {
  char buffer[4] = "abc";
  EXPECT_EQ(kvhlp_dump_buffer_to_file(buffer, 4, "/nonexistent/f"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(kvhlp_dump_buffer_to_file(buffer, 4, "/dev/full"), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(kvhlp_read_buffer_from_file(buffer, 4, "/nonexistent/f"), -1);
  EXPECT_EQ(kvhlp_read_buffer_from_file(buffer, 4, "/"), -1);
  EXPECT_EQ(kvhlp_dump_buffer_to_file(nullptr, 4, "/dev/null"), -1);
  EXPECT_EQ(kvhlp_read_buffer_from_file(buffer, 4, nullptr), -1);
}

}  // namespace
