#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "activecontent/kvactivecontent_dispatch.h"
#include "activecontent/kvactivecontent_dispatch_rows.h"
#include "common/kv_time.h"
#include "support/archive_writer.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

struct outcome {
  std::int32_t code = 0;
  std::string reason;
  std::string error;
};

outcome dispatch(const kv_scanobject_ptr& job) {
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_dispatch(job.get(), nullptr, reason, error, 0);
  return {code, reason, error};
}

struct finding_case {
  kv_ac_slot guard;
  const char* mime;
  const char* type;
  const char* extension;
  const char* reason;  // null: not reported by this row
  const char* log_line;
};

class Finding : public testing::TestWithParam<finding_case> {
 protected:
  [[nodiscard]] static kv_scanobject_ptr job(std::initializer_list<kv_ac_slot> on) {
    return make_job("bytes", on, GetParam().mime, GetParam().type, GetParam().extension);
  }
};

constexpr kv_ac_slot kExe = KV_AC_EXECUTABLE;
INSTANTIATE_TEST_SUITE_P(
    Rows, Finding,
    testing::Values(
        finding_case{KV_AC_JAVASCRIPT_SOURCE, "application/JavaScript", "", "",
                     "\"javascript source code\" detected", "Checking for javascript"},
        finding_case{KV_AC_JAVASCRIPT_SOURCE, "text/plain", "javascript SOURCE, ASCII", "",
                     "\"javascript source code\" detected", "Checking for javascript"},
        finding_case{KV_AC_JAVASCRIPT_SOURCE, "text/plain", "Java source", "", nullptr,
                     "Checking for javascript"},
        finding_case{KV_AC_ZIP_JAVA_ARCHIVE, "application/X-JAR", "", "",
                     "\"java archive\" detected", "Checking for java archive"},
        finding_case{KV_AC_ZIP_JAVA_ARCHIVE, "application/java-archive", "Zip archive", "",
                     "\"java archive\" detected", "Checking for java archive"},
        finding_case{KV_AC_ZIP_JAVA_ARCHIVE, "application/zip", "Java archive data (JAR)", "",
                     nullptr, "Checking for java archive"},
        finding_case{KV_AC_FLASH, "x/y", "Macromedia FLASH data, version 9", "",
                     "\"Macromedia FLASH data, version 9\" detected", "Checking for Flash"},
        finding_case{KV_AC_FLASH, "application/x-shockwave-flash", "data", "", nullptr,
                     "Checking for Flash"},
        finding_case{KV_AC_SILVERLIGHT, "application/X-Silverlight-app", "Zip archive", "",
                     "\"Zip archive\" detected", "Checking for Silverlight"},
        finding_case{kExe, "x/y", "ELF 64-bit LSB Executable", "",
                     "\"ELF 64-bit LSB Executable\" detected", "Checking for Executable"},
        finding_case{kExe, "application/vnd.microsoft.PORTABLE-executable", "PE32", "",
                     "\"PE32\" detected", "Checking for Executable"},
        finding_case{kExe, "x/y", "ELF 64-bit LSB shared object", "",
                     "\"ELF 64-bit LSB shared object\" detected", "Checking for Executable"},
        finding_case{kExe, "x/y", "a Shared Library", "", "\"a Shared Library\" detected",
                     "Checking for Executable"},
        finding_case{kExe, "application/x-sharedlib", "", "", "\"\" detected",
                     "Checking for Executable"},
        finding_case{kExe, "text/plain", "ASCII text", ".bat", "\"DOS Batch file\" detected",
                     "Checking for Executable"},
        finding_case{kExe, "TEXT/PLAIN", "", ".BAT", "\"DOS Batch file\" detected",
                     "Checking for Executable"},
        finding_case{kExe, "text/plain", "ASCII text", "bat", nullptr, "Checking for Executable"},
        finding_case{kExe, "text/plain", "ASCII text", ".bat2", nullptr, "Checking for Executable"},
        finding_case{kExe, "application/octet-stream", "data", ".bat", nullptr,
                     "Checking for Executable"},
        finding_case{kExe, "application/x-msi", "data", "", "\"MSI Installer\" detected",
                     "Checking for Executable"},
        finding_case{kExe, "x/y", "Composite Document File V2 Document, msi installer", "",
                     "\"MSI Installer\" detected", "Checking for Executable"}));

TEST_P(Finding, IsReportedWhileItsSwitchIsOn) {
  const trace_capture trace;
  const outcome got = dispatch(job({GetParam().guard}));
  EXPECT_EQ(got.code, GetParam().reason == nullptr ? 0 : -202);
  EXPECT_EQ(got.reason, GetParam().reason == nullptr ? "" : GetParam().reason);
  EXPECT_EQ(got.error, "");
  EXPECT_EQ(trace.count("DEBUG", GetParam().log_line), 1);
  if (GetParam().reason != nullptr) {
    EXPECT_EQ(trace.count("WARN", GetParam().reason), 1);
  }
}

TEST_P(Finding, IsNotLookedForWhileItsSwitchIsOff) {
  const trace_capture trace;
  EXPECT_EQ(dispatch(job({})).code, 0);
  EXPECT_EQ(trace.count(GetParam().log_line), 0);
}

TEST_P(Finding, SwitchOfAnotherValueThanOneIsOff) {
  const kv_scanobject_ptr off = job({});
  off->ActiveContent->slots[GetParam().guard] = 2;
  EXPECT_EQ(dispatch(off).code, 0);
}

TEST(DispatchFindings, EarlierRowWins) {
  const kv_scanobject_ptr job =
      make_job("bytes", {KV_AC_FLASH, KV_AC_ZIP_JAVA_ARCHIVE, KV_AC_EXECUTABLE},
               "application/java-archive", "Macromedia Flash executable");
  EXPECT_EQ(dispatch(job).reason, "\"java archive\" detected");
}

TEST(DispatchFindings, ReasonIsCutAt1023Bytes) {
  const std::string type = "Macromedia Flash " + std::string(5000, 'x');
  const outcome got = dispatch(make_job("bytes", {KV_AC_FLASH}, "", type.c_str()));
  EXPECT_EQ(got.reason, ("\"" + type).substr(0, 1023));
}

TEST(DispatchFindings, TypeTextKeepsItsBytes) {
  const outcome got = dispatch(make_job("bytes", {KV_AC_FLASH}, "", "Macromedia Flash \xff\xe4%s"));
  EXPECT_EQ(got.reason, "\"Macromedia Flash \xff\xe4%s\" detected");
}

TEST(DispatchFindings, ObjectWithoutTextsIsClean) {
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  job->ActiveContent->slots[KV_AC_EXECUTABLE] = 1;
  EXPECT_EQ(dispatch(job).code, 0);
}

TEST(DispatchFindings, NeedNoBytes) {
  const kv_scanobject_ptr job = make_job("", {KV_AC_FLASH}, "image/png", "Macromedia Flash");
  job->data = nullptr;
  job->object_length = 100;
  EXPECT_EQ(dispatch(job).code, -202);
}

struct condition_case {
  bool (*condition)(const object_kind&);
  const char* mime;
  const char* type;
  bool expected;
};
class Condition : public testing::TestWithParam<condition_case> {};
constexpr const char* kCdf = "Composite Document File V2 Document";
INSTANTIATE_TEST_SUITE_P(
    Rows, Condition,
    testing::Values(
        condition_case{dispatch_is_markup, "text/HTML", "", true},
        condition_case{dispatch_is_markup, "application/xhtml+xml", "", true},
        condition_case{dispatch_is_markup, "image/png", "", true},
        condition_case{dispatch_is_markup, "IMAGE/svg+xml", "", true},
        condition_case{dispatch_is_markup, "x-image/png", "", true},
        condition_case{dispatch_is_markup, "text/xml", "HTML document", false},
        condition_case{dispatch_is_pdf, "Application/PDF", "", true},
        condition_case{dispatch_is_pdf, "application/x-pdf", "PDF document", false},
        condition_case{dispatch_is_compound_office, "",
                       "COMPOSITE document file v2 document, Microsoft Word", true},
        condition_case{dispatch_is_compound_office, "", kCdf, false},
        condition_case{dispatch_is_compound_office, "application/MSWORD", "microsoft", true},
        condition_case{dispatch_is_compound_office, "application/vnd.ms-excel", "Microsoft Excel",
                       true},
        condition_case{dispatch_is_compound_office, "application/vnd.ms-powerpoint", "Microsoft",
                       true},
        condition_case{dispatch_is_compound_office, "application/msword", "Word document", false},
        condition_case{dispatch_is_compound_office, "application/vnd.ms-word", "Microsoft", false},
        condition_case{dispatch_is_compound_office, "application/msword", "Microsoft Word 2007+",
                       false},
        condition_case{dispatch_is_compound_office, "application/msword", "Microsoft Office XML",
                       false},
        condition_case{dispatch_is_compound_office, "application/msword",
                       "MICROSOFT Office Excel xml", false},
        condition_case{dispatch_is_compound_office, "application/msword",
                       "Microsoft Office Word XML", false},
        condition_case{dispatch_is_compound_office, "application/msword",
                       "Microsoft Office PowerPoint XML", false},
        condition_case{dispatch_is_ooxml, "application/vnd.openxmlformats-officedocument", "",
                       true},
        condition_case{dispatch_is_ooxml, "APPLICATION/VND.OPENXMLFORMATS-OFFICEDOCUMENT", "",
                       false},
        condition_case{dispatch_is_ooxml, "APPLICATION/VND.OPENXMLFORMATS-OFFICEDOCUMENT",
                       "microsoft WORD 2007+", true},
        condition_case{dispatch_is_ooxml, "application/vnd.ms-excel", "", true},
        condition_case{dispatch_is_ooxml, "application/VND.ms-access", "", false},
        condition_case{dispatch_is_ooxml, "application/msword", "", true},
        condition_case{dispatch_is_ooxml, "application/msexcel", "", true},
        condition_case{dispatch_is_ooxml, "application/mspowerpoint", "", true},
        condition_case{dispatch_is_ooxml, "application/ms-word", "", true},
        condition_case{dispatch_is_ooxml, "application/ms-excel", "", true},
        condition_case{dispatch_is_ooxml, "application/ms-powerpoint", "", true},
        condition_case{dispatch_is_ooxml, "application/zip", "Microsoft OOXML", false},
        condition_case{dispatch_is_ooxml, "application/zip", "2007+", false},
        condition_case{dispatch_is_delimited_text, "text/csv", "", true},
        condition_case{dispatch_is_delimited_text, "TEXT/plain", "", true},
        condition_case{dispatch_is_delimited_text, "text/html", "", false},
        condition_case{dispatch_is_delimited_text, "text/XHTML", "", false},
        condition_case{dispatch_is_delimited_text, "application/csv", "CSV text", false},
        condition_case{dispatch_is_anything, "", "", true}));

TEST_P(Condition, FollowsTheTexts) {
  const kv_scanobject_ptr job = make_job("", {}, GetParam().mime, GetParam().type);
  EXPECT_EQ(GetParam().condition(object_kind{*job}), GetParam().expected)
      << GetParam().mime << " | " << GetParam().type;
}

// Detectors that note what they were given.
struct fake_detectors {
  std::vector<std::string> calls;
  std::int32_t first = 0;
  const void* data = nullptr;
  std::int64_t length = -1;
  std::uint8_t flag = 0;
  std::int64_t time_left = 0;
  kv_scan_result_t* consolidated = nullptr;
};
fake_detectors* fakes = nullptr;

std::int32_t fake_first(scanobject* job, char* reason) {
  fakes->calls.emplace_back("first");
  fakes->data = job->data;
  fakes->length = job->object_length;
  if (fakes->first == -202) {
    std::strcpy(reason, "found");
  }
  return fakes->first;
}
std::int32_t fake_second(scanobject*, char*, char* error) {
  fakes->calls.emplace_back("second");
  std::strcpy(error, "broken");
  return -1000;
}
std::int32_t fake_markup(scanobject*, kv_scan_result_t* consolidated, char*, char*,
                         std::uint8_t flag, std::int64_t time_left) {
  fakes->calls.emplace_back("markup");
  fakes->flag = flag;
  fakes->time_left = time_left;
  fakes->consolidated = consolidated;
  return 0;
}
std::int32_t fake_thrower(scanobject*, char*) {
  throw std::runtime_error("no more room");
}

constexpr std::array kFakeRows{
    dispatch_detector<fake_markup>(kNoGuard, dispatch_is_markup, "Checking in markup",
                                   kMarkupSwitches),
    dispatch_detector<fake_first>(kNoGuard, dispatch_is_anything, "Checking first",
                                  kPackageSwitches),
    dispatch_detector<fake_second>(KV_AC_GIFAR, dispatch_is_anything, nullptr, kAlwaysNeedsBytes),
};

class DispatchRun : public testing::Test {
 protected:
  void SetUp() override { fakes = &seen; }
  void TearDown() override { fakes = nullptr; }
  std::int32_t run(const kv_scanobject_ptr& job, std::uint8_t flag = 0) {
    return dispatch_run(kFakeRows, {job.get(), consolidated.get(), reason, error, flag});
  }

  using names = std::vector<std::string>;
  fake_detectors seen;
  kv_scan_result_ptr consolidated{kv_worker_new_scan_result()};
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
};

TEST_F(DispatchRun, CleanRowLetsTheNextOneLook) {
  EXPECT_EQ(run(make_job("x", {KV_AC_GIFAR}, "image/png")), -1000);
  EXPECT_EQ(seen.calls, (names{"markup", "first", "second"}));
  EXPECT_STREQ(error, "broken");
}

TEST_F(DispatchRun, AnyOtherOutcomeEndsIt) {
  for (const std::int32_t code : {-202, -1, -100, -1000, 7}) {
    seen = {};
    seen.first = code;
    EXPECT_EQ(run(make_job("x", {KV_AC_GIFAR}, "text/plain")), code);
    EXPECT_EQ(seen.calls, names{"first"});
  }
}

TEST_F(DispatchRun, GuardThatIsOffSkipsItsRow) {
  EXPECT_EQ(run(make_job("x", {}, "text/plain")), 0);
  EXPECT_EQ(seen.calls, names{"first"});
}

TEST_F(DispatchRun, LinesStandBeforeTheDetectorsThatAreCalled) {
  const trace_capture trace;
  EXPECT_EQ(run(make_job("x", {}, "text/plain")), 0);
  EXPECT_EQ(trace.count("DEBUG", "Checking first"), 1);
  EXPECT_EQ(trace.count("Checking in markup"), 0);
}

TEST_F(DispatchRun, MarkupGetsFlagResultAndTimeLeft) {
  const kv_scanobject_ptr job = make_job("x", {}, "text/html");
  job->start_ms = kv_current_time_ms() - 1000;
  job->limit_ms = 60'000;
  EXPECT_EQ(run(job, 1), 0);
  EXPECT_EQ(seen.flag, 1);
  EXPECT_EQ(seen.consolidated, consolidated.get());
  EXPECT_LE(seen.time_left, 59'000);
  EXPECT_GT(seen.time_left, 0);
  job->limit_ms = KV_NO_TIME_LIMIT;
  EXPECT_EQ(run(job), 0);
  EXPECT_EQ(seen.time_left, KV_NO_TIME_LIMIT);
}

TEST_F(DispatchRun, BytesAreHandedOn) {
  const std::string bytes = "abc";
  EXPECT_EQ(run(make_job(bytes, {}, "text/plain")), 0);
  EXPECT_EQ(seen.data, bytes.data());
  EXPECT_EQ(seen.length, 3);
}

kv_scanobject_ptr without_bytes(std::initializer_list<kv_ac_slot> on, const char* mime) {
  kv_scanobject_ptr job = make_job("", on, mime);
  job->data = nullptr;
  job->object_length = 10;
  return job;
}

TEST_F(DispatchRun, MissingBytesEndARowThatNeedsThem) {
  const trace_capture trace;
  EXPECT_EQ(run(without_bytes({KV_AC_GIFAR}, "text/plain")), -1000);
  EXPECT_EQ(seen.calls, names{"first"});  // none of its switches is on
  EXPECT_STREQ(error, "Data length inconsistency");
  EXPECT_EQ(trace.count("ERROR", "Data length inconsistency"), 1);
}

TEST_F(DispatchRun, MissingBytesEndADetectorOneOfWhoseSwitchesIsOn) {
  for (const kv_ac_slot slot :
       {KV_AC_MSOFFICE_JAVA, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE, KV_AC_MSOFFICE_MACRO}) {
    seen = {};
    EXPECT_EQ(run(without_bytes({slot}, "text/plain")), -1000);
    EXPECT_TRUE(seen.calls.empty());
  }
  for (const kv_ac_slot slot :
       {KV_AC_HTML_EVENTHANDLER, KV_AC_HTML_SCRIPT, KV_AC_XML_JAVASCRIPT, KV_AC_XML_XSLT}) {
    EXPECT_EQ(run(without_bytes({slot}, "text/html")), -1000);
    EXPECT_TRUE(seen.calls.empty());
  }
}

TEST(DispatchTable, PdfWithoutItsBytesFailsWhateverTheSwitches) {
  const outcome got = dispatch(without_bytes({}, "application/pdf"));
  EXPECT_EQ(got.code, -1000);
  EXPECT_EQ(got.error, "Data length inconsistency");
}

// One object for each row that hands its object to a detector with switches of its own.
struct detector_row {
  const char* mime;
  const char* type;
  std::vector<kv_ac_slot> switches;
  const char* log_line;  // null for none
};
class DetectorRow : public testing::TestWithParam<detector_row> {};
INSTANTIATE_TEST_SUITE_P(
    Rows, DetectorRow,
    testing::Values(detector_row{"text/html",
                                 "",
                                 {KV_AC_HTML_EVENTHANDLER, KV_AC_HTML_SCRIPT, KV_AC_XML_JAVASCRIPT,
                                  KV_AC_XML_XSLT},
                                 "Checking in html/xml content"},
                    detector_row{"x/y",
                                 "Composite Document File V2 Document, Microsoft Word",
                                 {KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_MACRO},
                                 "Checking in CDFv2 Office Document"},
                    detector_row{"x/y",
                                 "Microsoft Word 2007+",
                                 {KV_AC_MSOFFICE_JAVA, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE,
                                  KV_AC_MSOFFICE_MACRO},
                                 nullptr},
                    detector_row{
                        "text/csv", "", {KV_AC_CSV_INJECTION}, "Checking for CSV-injection"},
                    detector_row{"x/y", "", {}, nullptr}));

TEST_P(DetectorRow, NeedsBytesOnlyForItsOwnSwitchesAndThoseOfEveryObject) {
  for (std::size_t slot = 0; slot < KV_AC_JAVASCRIPT_SOURCE; ++slot) {
    const auto on = static_cast<kv_ac_slot>(slot);
    const kv_scanobject_ptr job = make_job("", {on}, GetParam().mime, GetParam().type);
    job->data = nullptr;
    job->object_length = 10;
    const auto& own = GetParam().switches;
    const bool is_own = std::find(own.begin(), own.end(), on) != own.end();
    const trace_capture trace;
    const outcome got = dispatch(job);
    const bool needed = is_own || on == KV_AC_GIFAR;
    EXPECT_EQ(got.code, needed ? -1000 : 0) << slot;
    EXPECT_EQ(got.error, needed ? "Data length inconsistency" : "") << slot;
    EXPECT_EQ(got.reason, "") << slot;
    if (is_own && GetParam().log_line != nullptr) {
      EXPECT_EQ(trace.count("DEBUG", GetParam().log_line), 1) << slot;
    }
  }
}

TEST_P(DetectorRow, EmptyObjectIsCleanOrNotReadable) {
  for (std::size_t slot = 0; slot < KV_AC_JAVASCRIPT_SOURCE; ++slot) {
    const auto on = static_cast<kv_ac_slot>(slot);
    const kv_scanobject_ptr job = make_job("", {on}, GetParam().mime, GetParam().type);
    const bool compound = std::strstr(GetParam().type, "Composite") != nullptr &&
                          (on == KV_AC_MSOFFICE_OLE || on == KV_AC_MSOFFICE_MACRO);
    EXPECT_EQ(dispatch(job).code, compound ? -100 : 0) << slot;
  }
}

TEST(DispatchTable, FormulasAreLookedForInTextButNotInHtml) {
  const std::string table = "a,=cmd|x\nb,=cmd|y\n";
  for (const char* mime : {"text/csv", "text/plain", "TEXT/CSV"}) {
    EXPECT_EQ(dispatch(make_job(table, {KV_AC_CSV_INJECTION}, mime)).code, -202) << mime;
    EXPECT_EQ(dispatch(make_job(table, {}, mime)).code, 0) << mime;
  }
  EXPECT_EQ(dispatch(make_job(table, {KV_AC_CSV_INJECTION}, "text/html")).code, 0);
}

TEST(DispatchTable, JavaClassesAreFoundInAnyObjectThatOpensAsAnArchive) {
  const std::string jar = make_archive({{"Main.class", "x"}});
  for (const char* mime : {"image/png", "application/octet-stream", ""}) {
    const outcome got = dispatch(make_job(jar, {KV_AC_GIFAR}, mime));
    EXPECT_EQ(got.reason, "\"Java class\" detected") << mime;
    EXPECT_EQ(dispatch(make_job(jar, {}, mime)).code, 0) << mime;
  }
}

TEST(DispatchTable, PackageTypeInCapitalsIsRoutedByItsTypeTextOnly) {
  const std::string package = make_archive({{"word/vbaProject.bin", "x"}});
  const char* const mime = "APPLICATION/VND.OPENXMLFORMATS-OFFICEDOCUMENT";
  EXPECT_EQ(dispatch(make_job(package, {KV_AC_MSOFFICE_MACRO}, mime, "Zip archive")).code, 0);
  EXPECT_EQ(dispatch(make_job(package, {KV_AC_MSOFFICE_MACRO}, mime, "Microsoft Word 2007+")).code,
            -202);
}

TEST(DispatchTable, OldOfficeTypeThatIsNoCompoundFileIsLookedAtAsAPackage) {
  const std::string package = make_archive({{"word/vbaProject.bin", "x"}});
  EXPECT_EQ(dispatch(make_job(package, {KV_AC_MSOFFICE_MACRO}, "application/vnd.ms-excel")).code,
            -202);
}

TEST(DispatchTable, UnreadableCompoundFileEndsTheDispatch) {
  const outcome got = dispatch(make_job("no such file", {KV_AC_MSOFFICE_OLE, KV_AC_GIFAR},
                                        "application/msword", "Microsoft Word Document"));
  EXPECT_EQ(got.code, -100);
}

TEST(DispatchTable, FindingEndsTheScanBeforeAnyDetector) {
  const trace_capture trace;
  const outcome got =
      dispatch(make_job("%PDF-1.4", {KV_AC_FLASH}, "application/pdf", "Macromedia Flash"));
  EXPECT_EQ(got.code, -202);
  EXPECT_EQ(trace.count("Checking in PDF"), 0);
}

TEST_F(DispatchRun, MissingBytesLookEmptyToWhoDoesNotNeedThem) {
  const kv_scanobject_ptr job = without_bytes({KV_AC_MSOFFICE_MACRO_SIGNED}, "text/plain");
  EXPECT_EQ(run(job), 0);
  EXPECT_NE(seen.data, nullptr);
  EXPECT_EQ(seen.length, 0);
  EXPECT_EQ(job->data, nullptr);
  EXPECT_EQ(job->object_length, 10);
}

TEST_F(DispatchRun, NegativeLengthCountsAsZeroAndIsNoMissingByte) {
  const kv_scanobject_ptr job = without_bytes({KV_AC_MSOFFICE_OLE}, "text/plain");
  job->object_length = -5;
  EXPECT_EQ(run(job), 0);
  EXPECT_NE(seen.data, nullptr);
  EXPECT_EQ(seen.length, 0);
}

TEST(DispatchFailures, ExceptionBecomesAFailedScan) {
  constexpr std::array rows{
      dispatch_detector<fake_thrower>(kNoGuard, dispatch_is_anything, nullptr, kAlwaysNeedsBytes)};
  const kv_scanobject_ptr job = make_job("x");
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  EXPECT_EQ(dispatch_run_guarded(rows, {job.get(), nullptr, reason, error, 0}), -1000);
  EXPECT_STREQ(error, "no more room");
  EXPECT_EQ(job->object_length, 1);
}

}  // namespace
