#include <gtest/gtest.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>

#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"
#include "support/archive_writer.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kReason = "\"Java class\" detected";

struct outcome {
  std::int32_t code;
  std::string reason;
  std::string error;
  bool operator==(const outcome&) const = default;
};
const outcome kClean{0, "", ""};
const outcome kFound{-202, kReason, ""};
const outcome kTimeout{-1000, "", "Service side timeout"};
const outcome kTooLarge{-1000, "", "Archive too large to examine"};

std::uint64_t s_now_ms() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

// CPU time of this thread: what else the machine does must not fail a test.
double s_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

outcome s_scan(const std::string& bytes, std::int64_t limit_ms = KV_NO_TIME_LIMIT) {
  const kv_scanobject_ptr job = make_job(bytes, {KV_AC_GIFAR});
  job->limit_ms = limit_ms;
  job->start_ms = s_now_ms();
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_GIFAR(job.get(), reason, error);
  return {code, reason, error};
}

std::string s_jar(std::string name = "Main.class") {
  return make_archive({{name, "x"}});
}

TEST(Gifar, AClassInAnArchiveIsReported) {
  EXPECT_EQ(s_scan(s_jar()), kFound);
  EXPECT_EQ(s_scan(s_jar("Main.CLASS")), kClean);
  EXPECT_EQ(s_scan(s_jar("Main.java")), kClean);
}

TEST(Gifar, AnImageWithAnArchiveBehindIsReported) {
  const std::string image = "GIF89a" + std::string(3000, '\x01');
  EXPECT_EQ(s_scan(image), kClean);
  EXPECT_EQ(s_scan(image + s_jar()), kFound);
}

// A line that begins an mtree list must not make the archive behind it one.
TEST(Gifar, AListInFrontHidesNoArchive) {
  EXPECT_EQ(s_scan("#mtree\n" + s_jar()), kFound);
  EXPECT_EQ(s_scan("#mtree\nMain.class type=file\n"), kFound);
  EXPECT_EQ(s_scan("#mtree\nMain.java type=file\n"), kClean);
}

TEST(Gifar, AListIsReadOnlyWhileItIsSmallAndPlain) {
  const std::string list = "#mtree\nMain.class type=file\n";
  const std::string line(63, '#');
  std::string large = list;
  while (large.size() + 64 <= (64U << 10)) {
    large += line + "\n";
  }
  EXPECT_EQ(s_scan(large), kFound);
  EXPECT_EQ(s_scan(large + line + line), kClean);
  EXPECT_EQ(s_scan(compress_bytes(list, "gzip")), kClean);
}

class NameOutsideAscii : public testing::TestWithParam<const char*> {};
TEST_P(NameOutsideAscii, IsFoundAndHidesNothing) {
  const trace_capture trace;
  const std::string bytes = make_raw_zip({{"\xC3\xA9\xE2\x82\xAC.class", "x", 0, kZipUtf8Name}});
  EXPECT_EQ(s_scan(bytes), kFound);
}
INSTANTIATE_TEST_SUITE_P(Gifar, NameOutsideAscii, testing::Values("zip"));

TEST(Gifar, NamesOutsideAsciiAreFoundInEveryFormatThatHasThem) {
  // The writer needs such a locale too.
  const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
  const locale_t before = uselocale(utf8);
  std::vector<std::string> archives;
  for (const char* format : {"zip", "7zip", "xar", "pax", "ustar"}) {
    archives.push_back(make_archive({{"\xC3\xA9.txt", "x"}, {"\xC3\xA9.class", "y"}}, format));
  }
  uselocale(before);
  freelocale(utf8);
  for (const std::string& archive : archives) {
    EXPECT_EQ(s_scan(archive), kFound) << archive.substr(0, 6);
  }
}

TEST(Gifar, TheThreadsLocaleIsRestored) {
  const locale_t before = uselocale(locale_t{});
  EXPECT_EQ(s_scan(s_jar()), kFound);
  EXPECT_EQ(uselocale(locale_t{}), before);
}

// A name that claims to be UTF-8 and is not: the library gives none.
TEST(Gifar, AZipMemberWithoutANameIsNamedByItsHeader) {
  for (const bool directory : {true, false}) {
    EXPECT_EQ(
        s_scan(make_raw_zip({{"a", "x"}, {"\xFF\xFE.class", "x", 0, kZipUtf8Name}}, directory)),
        kFound)
        << directory;
    EXPECT_EQ(s_scan(make_raw_zip({{"\xFF\xFE.txt", "x", 0, kZipUtf8Name}, {"b", ""}}, directory)),
              kClean)
        << directory;
    EXPECT_EQ(
        s_scan(make_raw_zip({{"\xFF\xFE.txt", "x", 0, kZipUtf8Name}, {"b.class", ""}}, directory)),
        kFound)
        << directory;
  }
}

TEST(Gifar, LayersOfCompressionAreTakenOff) {
  std::string bytes = make_archive({{"Main.class", "x"}}, "gnutar");
  for (const char* filter : {"gzip", "xz", "gzip", "bzip2", "zstd", "uuencode", "lz4"}) {
    bytes = compress_bytes(bytes, filter);
    EXPECT_EQ(s_scan(bytes), kFound) << filter;
  }
}

TEST(Gifar, AsManyLayersAsTheLibraryStacks) {
  std::string bytes = make_archive({{"Main.class", "x"}}, "gnutar");
  for (int layer = 1; layer <= 24; ++layer) {
    bytes = compress_bytes(bytes, "gzip");
  }
  EXPECT_EQ(s_scan(bytes), kFound);
  for (int layer = 0; layer < 4; ++layer) {
    bytes = compress_bytes(bytes, "gzip");
  }
  EXPECT_EQ(s_scan(bytes), kClean);
}

TEST(Gifar, ADamagedLayerIsNoArchive) {
  std::string bytes = make_archive({{"Main.class", "x"}}, "gnutar", {"gzip"});
  EXPECT_EQ(s_scan(bytes.substr(0, 12)), kClean);
  bytes[12] = static_cast<char>(bytes[12] ^ 0xFF);
  bytes[13] = static_cast<char>(bytes[13] ^ 0xFF);
  static_cast<void>(s_scan(bytes));
}

// Scanning must never start a process: these magic numbers would.
TEST(Gifar, FiltersThatStartProgramsAreNotOffered) {
  const std::string lzop("\x89LZO\0\r\n\x1A\n\x10\x30\x20\x60\x09\x40\x01\x05\x03\0\0\x01", 21);
  const std::string lrzip("LRZI\0\6\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 24);
  const std::string grzip = "GRZipII" + std::string("\0\2\4:)\0\0\0\0\0\0\0\0", 13);
  for (const std::string& magic : {lzop, lrzip, grzip}) {
    const trace_capture trace;
    EXPECT_EQ(s_scan(magic + std::string(2000, '\x7F')), kClean);
    EXPECT_EQ(trace.count("Unrecognized archive format"), 1) << magic;
  }
}

TEST(Gifar, ABombOfManyMembersIsTooLarge) {
  const std::string member(1 << 20, '\0');
  std::vector<archive_member> members(80, {"zeros", member});
  members.push_back({"Main.class", ""});
  const std::string bytes = make_archive(members, "gnutar", {"gzip"});
  ASSERT_LT(bytes.size(), 200000U);
  const trace_capture trace;
  const outcome result = s_scan(bytes);
  // 80 MiB are more than 64 MiB, and more than 1032 times these bytes when they are few.
  EXPECT_EQ(result, bytes.size() * 1032 < (80U << 20) ? kTooLarge : kFound);
  const std::string twice = compress_bytes(bytes, "gzip");
  ASSERT_LT(twice.size() * 1032, 80U << 20);
  EXPECT_EQ(s_scan(twice), kTooLarge);
  EXPECT_GE(trace.count("WARN", "Archive too large to examine"), 1);
}

TEST(Gifar, AHitBeforeTheBoundIsStillAHit) {
  const std::string member(1 << 20, '\0');
  std::vector<archive_member> members{{"Main.class", ""}};
  members.insert(members.end(), 80, {"zeros", member});
  const std::string bytes = compress_bytes(make_archive(members, "gnutar", {"gzip"}), "gzip");
  EXPECT_EQ(s_scan(bytes), kFound);
}

TEST(Gifar, WhatUnpacksToLittleIsNeverTooLarge) {
  const std::string member(60 << 20, '\0');
  const std::string bytes = compress_bytes(
      make_archive({{"zeros", member}, {"Main.class", ""}}, "gnutar", {"gzip"}), "gzip");
  EXPECT_EQ(s_scan(bytes), kFound);
}

// Layers whose output is nothing but empty members of the next layer: no byte ever comes out.
TEST(Gifar, LayersThatGiveNothingAreBounded) {
  std::string empties;
  const std::string empty = compress_bytes("", "gzip");
  while (empties.size() < (8U << 20)) {
    empties += empty;
  }
  std::string bytes = compress_bytes(empties, "gzip");
  std::string more;
  for (int i = 0; i < 100; ++i) {
    more += bytes;
  }
  bytes = compress_bytes(more, "gzip");
  ASSERT_LT(bytes.size(), 100000U);
  const double start = s_cpu_seconds();
  EXPECT_EQ(s_scan(bytes), kTooLarge);
  EXPECT_LT(s_cpu_seconds() - start, 20);
}

// The library would build the whole table in memory, ten times its length, in one call.
TEST(Gifar, AXarTableOfContentsIsBounded) {
  std::string table = "<?xml version=\"1.0\"?><xar><toc>";
  while (table.size() < (20U << 20)) {
    table += "<file id=\"1\"><name>a.class</name><type>file</type></file>";
  }
  // A gzip file without its headers is what xar holds behind two bytes of its own.
  const std::string packed = compress_bytes(table + "</toc></xar>", "gzip").substr(10 - 2);
  std::string header{"xar!\0\x1C\0\1", 8};
  for (int shift = 56; shift >= 0; shift -= 8) {
    header.push_back(static_cast<char>(packed.size() >> shift));
  }
  const std::string bytes = header + std::string(12, '\0') + packed;
  ASSERT_LT(bytes.size(), 200000U);
  EXPECT_EQ(s_scan(bytes), kTooLarge);
  EXPECT_EQ(s_scan(compress_bytes(bytes, "gzip")), kTooLarge);
  const std::string small = make_archive({{"a.class", "x"}}, "xar");
  EXPECT_EQ(s_scan(small), kFound);
  EXPECT_EQ(s_scan(compress_bytes(small, "gzip")), kFound);
}

TEST(Gifar, AWalkCutShortByTimeEndsTheScan) {
  const trace_capture trace;
  EXPECT_EQ(s_scan(s_jar("a.txt"), 0), kTimeout);
  EXPECT_EQ(trace.count("WARN", "Service side timeout"), 1);
}

TEST(Gifar, AnObjectThatIsNoArchiveNeitherTimesOutNorIsTooLarge) {
  EXPECT_EQ(s_scan("no archive, whatever the time says", 0), kClean);
}

TEST(Gifar, TheTimeBudgetHoldsWithinOneMember) {
  // Large enough that unpacking it takes far longer than the budget.
  std::string zeros(48 << 20, '\0');
  const std::string bytes = make_archive({{"zeros", zeros}, {"x", ""}}, "gnutar", {"bzip2"});
  zeros.clear();
  const double start = s_cpu_seconds();
  EXPECT_EQ(s_scan(bytes, 20), kTimeout);
  EXPECT_LT(s_cpu_seconds() - start, 3);
}

TEST(Gifar, LogsItsSteps) {
  const trace_capture trace;
  EXPECT_EQ(s_scan(s_jar()), kFound);
  EXPECT_EQ(trace.count("Checking for Java classes non-Java files"), 1);
  EXPECT_EQ(trace.count("WARN", kReason), 1);
  EXPECT_EQ(s_scan(s_jar("a")), kClean);
  EXPECT_EQ(trace.count("No Java classes object found"), 1);
  EXPECT_EQ(s_scan("text that is no archive"), kClean);
  EXPECT_EQ(trace.count("No Java classes object found"), 1);
}

long s_peak_kb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(Gifar, MemoryStaysBoundedWhateverTheNamesAre) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's own memory hides the program's";
#endif
  log_set_level(KV_LOG_LEVEL_INFO);
  // 60 MiB of headers, a hundred bytes of name in each.
  std::string headers;
  const std::string one = make_archive({{std::string(99, 'n'), ""}}, "ustar").substr(0, 512);
  while (headers.size() < (60U << 20)) {
    headers += one;
  }
  const std::string bytes = compress_bytes(headers, "gzip");
  headers.clear();
  headers.shrink_to_fit();
  const long before = s_peak_kb();
  EXPECT_EQ(s_scan(bytes), kClean);
  EXPECT_LT(s_peak_kb() - before, (64L << 10) + 3 * static_cast<long>(bytes.size() >> 10));
}

}  // namespace
