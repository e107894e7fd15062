// Archives whose headers describe more than the library may hold in memory: what lies just below a
// bound is examined to its last member, what lies above ends the scan, and memory stays within the
// bound either way.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "activecontent/kvactivecontent_detectors.h"
#include "common/kv_archive_guards.h"
#include "logging/log-helper.h"
#include "support/archive_writer.h"
#include "support/hostile_archives.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

struct outcome {
  std::int32_t code;
  std::string error;
  bool operator==(const outcome&) const = default;
};
const outcome kClean{0, ""};
const outcome kFound{-202, ""};
const outcome kTooLarge{-1000, "Archive too large to examine"};

outcome s_scan(const std::string& bytes) {
  const kv_scanobject_ptr job = make_job(bytes, {KV_AC_GIFAR});
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_GIFAR(job.get(), reason, error);
  return {code, error};
}

long s_peak_kb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// What one scan adds to the memory of a process of its own, in KiB.
long s_memory_of_scan(const std::string& bytes) {
  int ends[2];
  if (pipe(ends) != 0) {
    return -1;
  }
  malloc_trim(0);
  const pid_t child = fork();
  if (child == 0) {
    log_set_level(KV_LOG_LEVEL_OFF);
    const long before = s_peak_kb();
    static_cast<void>(s_scan(bytes));
    const long grown = s_peak_kb() - before;
    _exit(write(ends[1], &grown, sizeof grown) == sizeof grown ? 0 : 1);
  }
  close(ends[1]);
  long grown = -1;
  const bool is_read = read(ends[0], &grown, sizeof grown) == sizeof grown;
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return is_read ? grown : -1;
}

// A header that LZMA packed; the encoder gives it with its properties in front.
std::string s_packed_7z(const std::string& header) {
  constexpr std::size_t kProperties = 5;
  const std::string lzma = compress_bytes(header, "lzma");
  return archive_7z_encoded(header.size(),
                            bytes_of({0x23, 3, 1, 1, kProperties}) + lzma.substr(0, kProperties),
                            std::string_view{lzma}.substr(13));
}

// Deflate lies in a gzip file between ten bytes and eight.
std::string s_deflate(const std::string& text) {
  const std::string gzip = compress_bytes(text, "gzip");
  return gzip.substr(10, gzip.size() - 18);
}

std::string s_xar_of_table(const std::string& table) {
  return archive_xar(table, s_deflate(table));
}

std::string s_xar(const std::string& files) {
  return s_xar_of_table(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><xar><toc>" + files +
      "<file id=\"1\"><name>Main.class</name><type>file</type></file></toc></xar>");
}

std::string s_xar_attributes(std::size_t count) {
  std::string tag = "<file id=\"2\"";
  for (std::size_t i = 1; i < count; ++i) {
    tag += " a" + std::to_string(i) + "=\"\"";
  }
  return s_xar(tag + "><name>a</name></file>");
}

std::string s_xar_extended(std::size_t count) {
  return s_xar("<file id=\"2\"><name>a</name>" +
               repeated("<ea id=\"1\"><name>b</name></ea>", count) + "</file>");
}

struct bound {
  const char* name;
  std::string (*make)(std::size_t count);
  std::size_t below;
  std::size_t above;
};

void PrintTo(const bound& row, std::ostream* out) {
  *out << row.name;
}

const bound kBounds[] = {
    {"members_of_7z",
     [](std::size_t n) { return archive_7z(header_7z_of_members(n, "Main.class")); }, 630'000,
     660'000},
    {"members_of_packed_7z",
     [](std::size_t n) { return s_packed_7z(header_7z_of_members(n, "Main.class")); }, 545'000,
     565'000},
    {"members_of_7z_behind_a_program",
     [](std::size_t n) {
       return "MZ" + std::string(0x27000 - 2, '\0') +
              s_packed_7z(header_7z_of_members(n, "Main.class"));
     },
     545'000, 575'000},
    {"attributes_of_xar", s_xar_attributes, 127, 129},
    {"extended_attributes_of_xar", s_xar_extended, 8'000, 8'400},
    {"map_of_sparse_tar", tar_sparse_member, 690'000, 1'100'000},
    {"map_of_sparse_tar_gz",
     [](std::size_t n) { return compress_bytes(tar_sparse_member(n), "gzip"); }, 690'000, 720'000},
    {"names_of_ar_gz", [](std::size_t n) { return compress_bytes(ar_with_names(n), "gzip"); },
     2'700'000, 2'900'000},
    {"links_of_cpio", cpio_with_links, 11'000, 12'000},
    {"links_of_cpio_gz", [](std::size_t n) { return compress_bytes(cpio_with_links(n), "gzip"); },
     11'000, 12'000},
    {"files_of_cd_image", cd_image, 80'000, 100'000},
    {"files_of_cd_image_gz", [](std::size_t n) { return compress_bytes(cd_image(n), "gzip"); },
     70'000, 80'000},
};

class ArchiveBound : public testing::TestWithParam<bound> {
 protected:
  void SetUp() override { log_set_level(KV_LOG_LEVEL_INFO); }
};

TEST_P(ArchiveBound, BelowEveryMemberIsExamined) {
  const std::string bytes = GetParam().make(GetParam().below);
  const bool is_sparse = std::string_view{GetParam().name}.starts_with("map");
  EXPECT_EQ(s_scan(bytes), is_sparse ? kClean : kFound);
}

TEST_P(ArchiveBound, AboveTheScanEndsWithItsText) {
  const trace_capture trace;
  log_set_level(KV_LOG_LEVEL_INFO);
  EXPECT_EQ(s_scan(GetParam().make(GetParam().above)), kTooLarge);
  EXPECT_EQ(trace.count("WARN", "Archive too large to examine"), 1);
}

TEST_P(ArchiveBound, MemoryStaysWithinItOnBothSides) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's own memory hides the program's";
#endif
  for (const std::size_t count :
       {GetParam().below, GetParam().above, GetParam().above * 2, GetParam().above * 4}) {
    const std::string bytes = GetParam().make(count);
    const long grown = s_memory_of_scan(bytes);
    ASSERT_GE(grown, 0);
    EXPECT_LT(grown, (64L << 10) + 3 * static_cast<long>(bytes.size() >> 10)) << count;
  }
}

INSTANTIATE_TEST_SUITE_P(Archives, ArchiveBound, testing::ValuesIn(kBounds),
                         [](const auto& row) { return std::string{row.param.name}; });

// Judged without the library: the claims alone would make it hold gigabytes.
bool s_fits(const std::string& bytes, bool is_whole = true, kv_time_source time = {}) {
  kv_archive_budget budget{bytes.size(), time};
  return kv_archive_contents_fit(
      {{reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, is_whole}, budget);
}

constexpr std::uint64_t kMany = 100'000'000;
constexpr std::uint64_t kHuge = ~std::uint64_t{0};

std::string s_packed_streams(std::uint64_t count) {
  return bytes_of({1, 4, 6}) + number_7z(0) + number_7z(count) + bytes_of({9});
}
std::string s_folders(std::uint64_t count) {
  return bytes_of({1, 4, 7, 0x0B}) + number_7z(count) + bytes_of({0});
}
std::string s_coders(std::uint64_t count) {
  return s_folders(1) + number_7z(count);
}
std::string s_coder_streams(std::uint64_t in, std::uint64_t out) {
  return s_coders(1) + bytes_of({0x10}) + number_7z(in) + number_7z(out);
}
std::string s_properties(std::uint64_t length) {
  return s_coders(1) + bytes_of({0x20}) + number_7z(length);
}
std::string s_substreams(std::uint64_t count) {
  return header_7z_of_streams(bytes_of({0x0D}) + number_7z(count), 1);
}
std::string s_members(std::uint64_t count) {
  return bytes_of({1, 5}) + number_7z(count) + bytes_of({0, 0});
}

TEST(ArchiveGuard7z, EveryCountIsHeldAgainstTheBound) {
  for (const std::uint64_t count : {kMany, kHuge}) {
    for (const std::string& header :
         {s_packed_streams(count), s_folders(count), s_coders(count), s_coder_streams(count, 1),
          s_coder_streams(1, count), s_properties(count), s_substreams(count), s_members(count)}) {
      EXPECT_FALSE(s_fits(archive_7z(header))) << count << " " << header.size();
      EXPECT_FALSE(s_fits(archive_7z_encoded(header.size(), kCopy7z, header))) << count;
    }
  }
}

TEST(ArchiveGuard7z, SmallCountsFit) {
  for (const std::string& header :
       {s_packed_streams(1), s_folders(1), s_coders(1), s_coder_streams(4, 1), s_properties(5),
        s_substreams(1), s_members(1)}) {
    EXPECT_TRUE(s_fits(archive_7z(header)));
    EXPECT_TRUE(s_fits(archive_7z_encoded(header.size(), kCopy7z, header)));
  }
}

TEST(ArchiveGuard7z, APackedHeaderThatClaimsALengthBeyondTheBoundIsNotUnpacked) {
  const std::string header = s_members(1);
  EXPECT_FALSE(s_fits(archive_7z_encoded(kMany, kCopy7z, header)));
  EXPECT_FALSE(s_fits(archive_7z_encoded(kHuge, kCopy7z, header)));
}

// What the archive writer packs is decoded by the library itself, whatever the coder.
TEST(ArchiveGuard7z, AHeaderIsUnpackedWithTheLibrarysCoders) {
  const std::string claim = s_members(kMany);
  const std::string deflate = s_deflate(claim);
  const std::string bzip2 = compress_bytes(claim, "bzip2");
  EXPECT_FALSE(s_fits(s_packed_7z(claim)));
  EXPECT_FALSE(s_fits(archive_7z_encoded(claim.size(), bytes_of({3, 4, 1, 8}), deflate)));
  EXPECT_FALSE(s_fits(archive_7z_encoded(claim.size(), bytes_of({3, 4, 2, 2}), bzip2)));
  EXPECT_TRUE(s_fits(s_packed_7z(s_members(1))));
}

TEST(ArchiveGuard7z, ArchivePropertiesAreRefused) {
  EXPECT_FALSE(s_fits(archive_7z(bytes_of({1, 2, 0, 5, 1, 0, 0}))));
}

TEST(ArchiveGuard7z, ADamagedHeaderIsLeftToTheLibrary) {
  const std::string whole = archive_7z(header_7z_of_members(3, "Main.class"));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_TRUE(s_fits(whole.substr(0, length))) << length;
    EXPECT_EQ(s_scan(whole.substr(0, length)), kClean) << length;
  }
  EXPECT_EQ(s_scan(whole), kFound);
}

TEST(ArchiveGuard7z, AnArchiveIsSoughtBehindAProgramOnly) {
  const std::string archive = archive_7z(s_members(kMany));
  for (const std::size_t offset : {std::size_t{2}, std::size_t{0x27000}, std::size_t{0x51234}}) {
    const std::string filler(offset, '\0');
    EXPECT_FALSE(s_fits("MZ" + filler + archive)) << offset;
    EXPECT_FALSE(
        s_fits("\x7F"
               "ELF" +
               filler + archive))
        << offset;
    EXPECT_TRUE(s_fits("GIF89a" + filler + archive)) << offset;
  }
  EXPECT_TRUE(s_fits("MZ" + std::string((8U << 20), '\0') + archive));
}

// Many archives behind one program cost no more than one.
TEST(ArchiveGuard7z, ArchivesBehindAProgramCountTogether) {
  const std::string header = s_members(100'000);
  const std::string archive = archive_7z(header);
  EXPECT_TRUE(s_fits("MZ" + repeated(archive, 3)));
  EXPECT_FALSE(s_fits("MZ" + repeated(archive, 8)));
}

TEST(ArchiveGuard7z, TheStartOfALongerObjectMustHoldTheHeader) {
  const std::string whole = archive_7z(header_7z_of_members(100, "a"));
  EXPECT_TRUE(s_fits(whole, false));
  EXPECT_FALSE(s_fits(whole.substr(0, whole.size() - 1), false));
}

TEST(ArchiveGuard7z, ClaimsBehindAFilterAreSeen) {
  EXPECT_EQ(s_scan(compress_bytes(archive_7z(s_substreams(kMany)), "gzip")), kTooLarge);
  EXPECT_EQ(s_scan(compress_bytes(archive_7z(s_members(kMany)), "gzip")), kTooLarge);
}

TEST(ArchiveGuard7z, ArchivesThatAWriterMakesFit) {
  std::vector<archive_member> members;
  for (int i = 0; i < 500; ++i) {
    members.push_back({"folder/member" + std::to_string(i), std::string(100, 'x')});
  }
  members.push_back({"Main.class", "x"});
  for (const char* options : {"compression=lzma1", "compression=lzma2", "compression=store",
                              "compression=deflate", "compression=ppmd", "compression=bzip2"}) {
    EXPECT_EQ(s_scan(make_archive(members, "7zip", {}, options)), kFound) << options;
  }
}

std::int64_t s_no_time(const void* /*context*/) {
  return 0;
}

TEST(ArchiveGuard7z, UnpackingAHeaderKeepsToTheTime) {
  const std::string archive = s_packed_7z(header_7z_of_members(1000, "Main.class"));
  EXPECT_TRUE(s_fits(archive));
  EXPECT_FALSE(s_fits(archive, true, {s_no_time, nullptr}));
}

// Text in another encoding could hide what makes a table costly.
TEST(ArchiveGuardXar, OnlyPlainTextInUtf8IsCounted) {
  const auto fits = [](const std::string& table) {
    return s_fits(s_xar_of_table(table + std::string(200, ' ')));
  };
  EXPECT_TRUE(fits("<?xml version=\"1.0\" encoding=\"UTF-8\"?><xar>"));
  EXPECT_TRUE(fits("<?xml version=\"1.0\" encoding='utf-8'?><xar>"));
  EXPECT_TRUE(fits("\xEF\xBB\xBF<?xml version=\"1.0\"?><xar>"));
  EXPECT_TRUE(fits("<xar>"));
  EXPECT_FALSE(fits("<?xml version=\"1.0\" encoding=\"UTF-7\"?><xar>"));
  EXPECT_FALSE(fits("<?xml version=\"encoding='utf-8'\" encoding=\"UTF-7\"?><xar>"));
  EXPECT_FALSE(fits("<?xml version=\"1.0\"" + std::string(150, ' ') + "encoding=\"UTF-7\"?>"));
  EXPECT_FALSE(fits(std::string{"<\0?\0", 4}));
  EXPECT_FALSE(fits("\xFE\xFF"));
  EXPECT_FALSE(fits("\x4C\x6F\xA7\x94"));
  EXPECT_FALSE(fits("<?xml version=\"1.0\"?><!DOCTYPE xar [<!ENTITY a \"b\">]><xar>"));
}

// A tar archive is found by its checksum, a CD image by its volume: both are read in pieces, with
// the same outcome.
TEST(ArchivePieces, TarAndCdImagesAreReadAsBefore) {
  std::vector<archive_member> members;
  for (int i = 0; i < 40; ++i) {
    members.push_back({"member" + std::to_string(i), std::string(i * 1000U, 'x')});
  }
  members.push_back({"Main.class", "x"});
  for (const char* format : {"gnutar", "ustar", "pax", "v7tar", "iso9660"}) {
    const std::string bytes = make_archive(members, format);
    EXPECT_EQ(s_scan(bytes), kFound) << format;
    EXPECT_EQ(s_scan(compress_bytes(bytes, "gzip")), kFound) << format;
  }
}

}  // namespace
