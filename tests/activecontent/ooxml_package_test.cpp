#include <gtest/gtest.h>

#include "activecontent/kv_archive_listing.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"
#include "support/archive_writer.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kMacro = "\"VBA-macro\" detected in MS-Office OOXML document";
constexpr const char* kOle = "\"OLE object\" detected in MS-Office OOXML document";
constexpr const char* kDde = "\"DDE\" detected in MS-Office OOXML document";
constexpr const char* kJava = "\"Java class\" detected in MS-Office OOXML document";
constexpr const char* kField = "<w:t>see</w:t><w:t> DDEAUTO c:\\\\x.exe</w:t>";

struct outcome {
  std::int32_t code;
  std::string reason;
  std::string error;
  bool operator==(const outcome&) const = default;
};

outcome s_scan(scanobject& job) {
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_OOXML(&job, reason, error);
  return {code, reason, error};
}

outcome s_scan(const std::string& bytes, std::initializer_list<kv_ac_slot> on) {
  return s_scan(*make_job(bytes, on));
}

std::string s_package(const std::vector<archive_member>& members) {
  std::vector<archive_member> all{{"[Content_Types].xml", "<Types/>"}};
  all.insert(all.end(), members.begin(), members.end());
  return make_archive(all);
}

const outcome kClean{0, "", ""};

TEST(Package, MacrosAreFound) {
  const std::string bytes = s_package({{"word/vbaProject.bin", "x"}});
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO}), (outcome{-202, kMacro, ""}));
  EXPECT_EQ(s_scan(bytes, {}), kClean);
  EXPECT_EQ(s_scan(s_package({{"word/VBAPROJECT.BIN", "x"}}), {KV_AC_MSOFFICE_MACRO}), kClean);
}

TEST(Package, SignedMacrosAreAcceptedUnlessAskedFor) {
  const std::string bytes =
      s_package({{"word/vbaProject.bin", "x"}, {"word/vbaProjectSignature.bin", "y"}});
  const trace_capture trace;
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO}), kClean);
  EXPECT_EQ(trace.count("INFO", "Macro was found but is signed - ACCEPTING"), 1);
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_MACRO_SIGNED}),
            (outcome{-202, kMacro, ""}));
}

TEST(Package, ASignatureAloneIsNoMacro) {
  EXPECT_EQ(s_scan(s_package({{"word/vbaProjectSignature.bin", "y"}}), {KV_AC_MSOFFICE_MACRO}),
            kClean);
}

TEST(Package, AnAcceptedMacroLeadsOnToTheOtherTests) {
  const std::string bytes = s_package({{"word/vbaProject.bin", "x"},
                                       {"word/vbaProjectSignature.bin", "y"},
                                       {"word/embeddings/o.bin", "z"}});
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE}), (outcome{-202, kOle, ""}));
}

TEST(Package, EmbeddedObjectsAreFound) {
  EXPECT_EQ(s_scan(s_package({{"word/embeddings/x.bin", ""}}), {KV_AC_MSOFFICE_OLE}),
            (outcome{-202, kOle, ""}));
  EXPECT_EQ(s_scan(s_package({{"word/EMBEDDINGS/x.bin", ""}}), {KV_AC_MSOFFICE_OLE}), kClean);
}

TEST(Package, JavaClassesAreFound) {
  EXPECT_EQ(s_scan(s_package({{"x/Main.class", ""}}), {KV_AC_MSOFFICE_JAVA}),
            (outcome{-202, kJava, ""}));
  EXPECT_EQ(s_scan(s_package({{"x/Main.CLASS", ""}}), {KV_AC_MSOFFICE_JAVA}), kClean);
}

TEST(Package, TheTestsStandInTheirOrder) {
  std::vector<archive_member> members{{"word/document.xml", kField}, {"a.class", ""}};
  const std::initializer_list<kv_ac_slot> all{KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE,
                                              KV_AC_MSOFFICE_DDE, KV_AC_MSOFFICE_JAVA};
  EXPECT_EQ(s_scan(s_package(members), all).reason, kDde);
  members.push_back({"embeddings/o", ""});
  EXPECT_EQ(s_scan(s_package(members), all).reason, kOle);
  members.push_back({"vbaProject.bin", ""});
  EXPECT_EQ(s_scan(s_package(members), all).reason, kMacro);
  EXPECT_EQ(s_scan(s_package(members), {KV_AC_MSOFFICE_JAVA}).reason, kJava);
}

class MainPart : public testing::TestWithParam<const char*> {};
TEST_P(MainPart, IsSearchedForFields) {
  EXPECT_EQ(s_scan(s_package({{GetParam(), kField}}), {KV_AC_MSOFFICE_DDE}),
            (outcome{-202, kDde, ""}));
}
INSTANTIATE_TEST_SUITE_P(Package, MainPart,
                         testing::Values("word/document.xml", "xl/workbook.xml",
                                         "ppt/presentation.xml", "document.xml",
                                         "x/mydocument.xml"));

class OtherPart : public testing::TestWithParam<const char*> {};
TEST_P(OtherPart, IsNotSearched) {
  EXPECT_EQ(s_scan(s_package({{GetParam(), kField}}), {KV_AC_MSOFFICE_DDE}), kClean);
}
INSTANTIATE_TEST_SUITE_P(Package, OtherPart,
                         testing::Values("word/document.xml.rels", "word/Document.xml",
                                         "word/footer.xml", "workbook.xmlx"));

TEST(Package, OnlyTheFirstReadableMainPartIsExamined) {
  EXPECT_EQ(s_scan(s_package({{"a/document.xml", "none"}, {"b/document.xml", kField}}),
                   {KV_AC_MSOFFICE_DDE}),
            kClean);
  EXPECT_EQ(s_scan(s_package({{"a/document.xml", kField}, {"b/document.xml", "none"}}),
                   {KV_AC_MSOFFICE_DDE})
                .reason,
            kDde);
}

TEST(Package, AMainPartThatCannotBeReadLeadsToTheNext) {
  const std::string bytes =
      make_raw_zip({{"a/document.xml", "no deflate data", 8}, {"b/document.xml", kField}});
  const trace_capture trace;
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_DDE}).reason, kDde);
  EXPECT_EQ(trace.count("found a/document.xml"), 1);
  EXPECT_EQ(trace.count("Failed to extract file \"a/document.xml\" from archive"), 1);
  EXPECT_EQ(trace.count("Error: "), 1);
  EXPECT_EQ(trace.count("found b/document.xml"), 1);
}

// The library tests the checksum of a stored member only when asked for more than there is.
TEST(Package, AStoredMainPartWithAWrongChecksumIsExamined) {
  const std::string bytes = make_raw_zip({{"a/document.xml", kField, 0, 0, 0x12345678}});
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_DDE}).reason, kDde);
}

TEST(Package, AReadThatEndsWithAWarningFails) {
  std::string bytes = make_archive({{"a/document.xml", kField}});
  const std::size_t crc = bytes.find("PK\x01\x02") + 16;
  bytes[crc] = static_cast<char>(bytes[crc] ^ 1);
  const std::size_t behind = bytes.find("PK\x07\x08");
  if (behind != std::string::npos) {
    bytes[behind + 4] = static_cast<char>(bytes[behind + 4] ^ 1);
  }
  bytes[14] = static_cast<char>(bytes[14] ^ 1);
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_DDE}), kClean);
}

TEST(Package, AShortReadIsExaminedAsItIs) {
  const std::string field = std::string{"x "} + kField;
  std::string bytes = make_archive({{"document.xml", field + std::string(5000, ' ')}}, "ustar");
  EXPECT_EQ(s_scan(bytes.substr(0, 512 + 200), {KV_AC_MSOFFICE_DDE}).reason, "");
  const std::string lying = make_raw_zip({{"document.xml", kField, 0, 0, 0, 4000}});
  EXPECT_EQ(s_scan(lying, {KV_AC_MSOFFICE_DDE}).code, s_scan(lying, {KV_AC_MSOFFICE_DDE}).code);
}

TEST(Package, TwoGigabytesDeclaredAreNotAllocated) {
  std::string bytes = make_archive({{"document.xml", kField}}, "ustar");
  const auto declare = [&bytes](const char* octal) {
    bytes.replace(124, 11, octal);
    unsigned sum = 0;
    bytes.replace(148, 8, "        ");
    for (std::size_t i = 0; i < 512; ++i) {
      sum += static_cast<std::uint8_t>(bytes[i]);
    }
    char text[16];
    snprintf(text, sizeof text, "%06o", sum);
    bytes.replace(148, 7, std::string(text, 7));
  };
  declare("20000000000");
  const trace_capture trace;
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_DDE}), kClean);
  EXPECT_EQ(trace.count("Failed to allocate file_content"), 1);
  declare("17777777777");  // one byte less is read, as far as it goes
  EXPECT_EQ(trace.count("Failed to allocate file_content"), 1);
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_DDE}).code, 0);
  EXPECT_EQ(trace.count("Failed to allocate file_content"), 1);
}

TEST(Package, AMainPartOfUnknownSizeIsReadToItsEnd) {
  std::string deflated = make_archive({{"document.xml", kField}});
  deflated.resize(deflated.find("PK\x01\x02"));  // no directory: read as a stream
  deflated.replace(22, 4, 4, '\0');              // whose sizes stand behind the data
  deflated.append(64, '\0');
  EXPECT_EQ(s_scan(deflated, {KV_AC_MSOFFICE_DDE}).reason, kDde);
}

TEST(Package, WhatIsNoArchiveHoldsNothing) {
  const trace_capture trace;
  const std::string text = "this is no archive at all, not even a small one";
  EXPECT_EQ(s_scan(text, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE,
                          KV_AC_MSOFFICE_JAVA}),
            kClean);
  EXPECT_EQ(trace.count("TRACE", "Can't open as archive. Code 84: Unrecognized archive format"), 4);
  EXPECT_EQ(trace.count("No macro found"), 0);
}

TEST(Package, LogsEachStep) {
  const trace_capture trace;
  EXPECT_EQ(
      s_scan(s_package({{"word/document.xml", "text"}}),
             {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE, KV_AC_MSOFFICE_JAVA}),
      kClean);
  for (const char* line :
       {"Checking for macro in OOXML", "No macro found", "Checking for OLE in OOXML",
        "No OLE object found", "checking for DDE", "found word/document.xml",
        "Checking for Java classes in OOXML", "No Java classes object found"}) {
    EXPECT_EQ(trace.count(line), 1) << line;
  }
  EXPECT_EQ(trace.count("no match"), 3);
  EXPECT_EQ(trace.count("DEBUG", "Checking file word/document.xml"), 3);  // once per name search
}

TEST(Package, ADetectionIsLoggedAsAWarning) {
  const trace_capture trace;
  static_cast<void>(s_scan(s_package({{"document.xml", kField}}), {KV_AC_MSOFFICE_DDE}));
  EXPECT_EQ(trace.count("WARN", kDde), 1);
  EXPECT_EQ(trace.count("match found for ddeauto"), 1);
}

TEST(Package, AllNameTestsShareOneListing) {
  log_set_level(KV_LOG_LEVEL_INFO);
  const std::string bytes = s_package({{"a", ""}});
  const auto job = make_job(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_JAVA});
  EXPECT_EQ(s_scan(*job), kClean);
  ASSERT_NE(job->archive_listing, nullptr);
  EXPECT_TRUE(job->archive_listing->ended);
  const auto* listing = job->archive_listing.get();
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  EXPECT_EQ(kvactivecontent_GIFAR(job.get(), reason, error), 0);
  EXPECT_EQ(job->archive_listing.get(), listing);
}

TEST(Package, TheListingIsReadNoFurtherThanTheAnswerNeeds) {
  log_set_level(KV_LOG_LEVEL_INFO);
  const std::string bytes = s_package({{"vbaProject.bin", ""}, {"b", ""}});
  const auto job = make_job(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_MACRO_SIGNED});
  EXPECT_EQ(s_scan(*job).reason, kMacro);
  EXPECT_FALSE(job->archive_listing->ended);
}

// The two ways through the name tests give the same answers.
TEST(Package, TheSharedListingAnswersAsSearchesOfTheirOwnDo) {
  const std::vector<std::vector<archive_member>> packages{
      {},
      {{"word/vbaProject.bin", ""}},
      {{"word/vbaProject.bin", ""}, {"vbaProjectSignature.bin", ""}},
      {{"vbaProjectSignature.bin", ""}, {"embeddings", ""}},
      {{"a.class", ""}, {"word/vbaProject.bin", ""}, {"vbaProjectSignature.bin", ""}}};
  const std::initializer_list<kv_ac_slot> on{KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE,
                                             KV_AC_MSOFFICE_JAVA};
  for (const auto& members : packages) {
    log_set_level(KV_LOG_LEVEL_INFO);
    const outcome shared = s_scan(s_package(members), on);
    const trace_capture trace;
    EXPECT_EQ(s_scan(s_package(members), on), shared);
  }
}

}  // namespace
