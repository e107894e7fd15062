#include "common/kvhlp_zip.h"

#include <gtest/gtest.h>

#include <locale.h>

#include "support/archive_writer.h"
#include "support/trace_capture.h"

namespace {

int s_search(const std::string& bytes, const char* pattern, int case_sensitive = 1) {
  return ZpsSearchBufferForFilenamePattern(bytes.data(), bytes.size(), pattern, case_sensitive);
}

const std::vector<archive_member> kJar{{"META-INF/MANIFEST.MF", "x"}, {"Main.class", "\xCA\xFE"}};

TEST(MemberSearch, FindsAMemberByPartOfItsPath) {
  const std::string jar = make_archive(kJar);
  EXPECT_EQ(s_search(jar, ".class"), 1);
  EXPECT_EQ(s_search(jar, "INF/MANI"), 1);
  EXPECT_EQ(s_search(jar, "vbaProject.bin"), 0);
}

TEST(MemberSearch, LetterCaseCountsOnlyWhenAskedFor) {
  const std::string jar = make_archive({{"word/EMBEDDINGS/x.bin", "x"}});
  EXPECT_EQ(s_search(jar, "embeddings", 1), 0);
  EXPECT_EQ(s_search(jar, "embeddings", 0), 1);
  EXPECT_EQ(s_search(jar, "EMBEDDINGS", 1), 1);
  EXPECT_EQ(s_search(jar, "EMBEDDINGs.", 0), 0);
}

TEST(MemberSearch, RefusesWhatIsNoArchive) {
  EXPECT_EQ(s_search("just some text, longer than any magic number is", ".class"), -1);
  EXPECT_EQ(s_search(std::string(100000, '\x55'), ".class"), -1);
}

// The library opens no bytes at all as an archive without members.
TEST(MemberSearch, NoBytesAreAnEmptyArchive) {
  EXPECT_EQ(s_search("", ".class"), 0);
}

class EveryFormat : public testing::TestWithParam<const char*> {};
TEST_P(EveryFormat, IsSearched) {
  const std::string archive = make_archive(kJar, GetParam());
  EXPECT_EQ(s_search(archive, ".class"), 1) << GetParam();
  EXPECT_EQ(s_search(archive, ".klass"), 0) << GetParam();
}
INSTANTIATE_TEST_SUITE_P(MemberSearch, EveryFormat,
                         testing::Values("zip", "7zip", "ustar", "gnutar", "pax", "cpio", "newc",
                                         "odc", "arbsd", "iso9660", "xar", "warc", "mtree"));

class EveryFilter : public testing::TestWithParam<const char*> {};
TEST_P(EveryFilter, IsTakenOff) {
  const std::string archive = make_archive(kJar, "gnutar", {GetParam()});
  EXPECT_EQ(s_search(archive, ".class"), 1) << GetParam();
  EXPECT_EQ(s_search(archive, ".klass"), 0) << GetParam();
}
INSTANTIATE_TEST_SUITE_P(MemberSearch, EveryFilter,
                         testing::Values("gzip", "bzip2", "compress", "lzma", "xz", "lzip",
                                         "uuencode", "b64encode", "lz4", "zstd"));

TEST(MemberSearch, LogsEachMemberThatItLooksAt) {
  const std::string jar = make_archive({{"a", ""}, {"b.class", ""}, {"c", ""}});
  const trace_capture trace;
  EXPECT_EQ(s_search(jar, ".class"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Checking file a"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Checking file b.class"), 1);
  EXPECT_EQ(trace.count("Checking file c"), 0);
}

TEST(MemberSearch, LogsWhyTheBytesAreNoArchive) {
  const trace_capture trace;
  EXPECT_EQ(s_search("no archive at all, whatever one does", ".class"), -1);
  EXPECT_EQ(trace.count("TRACE", "Can't open as archive. Code 84: Unrecognized archive format"), 1);
}

}  // namespace
