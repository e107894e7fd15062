// kv-av-scan's pieces: requests, verdicts, output, targets, the order of results, corpus tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "corpus_table.h"
#include "scan_backend.h"
#include "scan_output.h"
#include "scan_run.h"
#include "scan_targets.h"

namespace kv_scan {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ScanFolder : public testing::Test {
 protected:
  ScanFolder() {
    char name[] = "/tmp/kv_scan_test.XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~ScanFolder() override { std::filesystem::remove_all(folder_); }
  std::string write(const std::string& name, const std::string& content) {
    const std::string path = folder_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string folder_;
};

kv_json_ptr parse(const char* text) {
  return kv_json_ptr{json_tokener_parse(text)};
}

request_settings settings() {
  request_settings made;
  made.hostname = "host";
  return made;
}

// --- requests ---

TEST(ScanRequest, CarriesEveryKeyThatAJobAndItsOnwardRequestNeed) {
  const kv_json_ptr request =
      make_request({"a.html", 5, "text/html", "HTML document", ".html"}, settings(), "event-1");
  const std::vector<std::string> keys{"Command",
                                      "realmID",
                                      "SID",
                                      "Hostname",
                                      "EventID",
                                      "Services",
                                      "Scan-Servers",
                                      "Recursion",
                                      "shmID",
                                      "ObjectName",
                                      "ObjectLen",
                                      "SCANALLEMBEDDED",
                                      "SCANTIMEOUT",
                                      "SCANBANDWIDTH",
                                      "ENFORCE_MIME_POLICY_IN_ARCHIVES",
                                      "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES",
                                      "CUST_CHECK_MIME_TYPE",
                                      "ENFORCE_MIME_EXTENSION_MATCH",
                                      "CUST_ACTIVE_CONTENT",
                                      "CUST_CLEAN",
                                      "SCANMIMETYPES",
                                      "BLOCKMIMETYPES",
                                      "SCANEXTENSIONS",
                                      "BLOCKEXTENSIONS",
                                      "BLOCKENCRYPTED",
                                      "BLOCKHTML_IN_PDF",
                                      "SCANBASE64",
                                      "SCANUUENCODED",
                                      "SCANXMLCONTENT",
                                      "HTMLDETECTION",
                                      "XML_MODE",
                                      "SVG_MODE",
                                      "LONGMIMETYPES",
                                      "CLEANQUARANTINE",
                                      "INCLUDE_EVENT_ID_IN_MESSAGE",
                                      "EVENT_ID_DELIMITER",
                                      "SCANBESTEFFORT",
                                      "SCANALLFILES",
                                      "SCANEXTRACT",
                                      "SCANEXTRACT_DEPTH",
                                      "SCANEXTRACT_MAX_FILES",
                                      "SCANEXTRACT_SIZE",
                                      "SCANEXTRACT_RATIO",
                                      "SCANEXTRACT_NO_VIRUSSCAN",
                                      "SCAN_MIN_SIZE",
                                      "SCAN_MAX_SIZE",
                                      "SCAN_EXTENSION_MAX_LEN",
                                      "MIME-type",
                                      "File-type",
                                      "Extension"};
  for (const std::string& key : keys) {
    EXPECT_TRUE(json_object_object_get_ex(request.get(), key.c_str(), nullptr)) << key;
  }
  EXPECT_EQ(json_object_object_length(request.get()), static_cast<int>(keys.size()));
  for (const char* key : {"SID", "realmID", "Hostname", "EventID", "Services", "Scan-Servers",
                          "XML_MODE", "SVG_MODE", "EVENT_ID_DELIMITER", "HTMLDETECTION"}) {
    json_object* value = nullptr;
    json_object_object_get_ex(request.get(), key, &value);
    EXPECT_GT(json_object_get_string_len(value), 0) << key << " must not be empty";
  }
}

TEST(ScanRequest, MakesAJobOfItsObject) {
  const kv_json_ptr request =
      make_request({"a.html", 5, "text/html", "HTML document", ".html"}, settings(), "event-1");
  char error[KV_ERROR_TEXT_SIZE]{};
  const kv_scanobject_ptr job{kv_worker_GetScanJobDetails(request.get(), error)};
  ASSERT_NE(job, nullptr) << error;
  EXPECT_STREQ(job->object_name, "a.html");
  EXPECT_EQ(job->object_length, 5);
  EXPECT_EQ(job->shm_id, -1);
  EXPECT_STREQ(job->mime_type, "text/html");
  EXPECT_STREQ(job->file_type, "HTML document");
  EXPECT_STREQ(job->extension, ".html");
}

TEST(ScanRequest, EventIdsDiffer) {
  EXPECT_EQ(make_event_id().size(), 36U);
  EXPECT_NE(make_event_id(), make_event_id());
}

// --- verdicts ---

struct verdict_row {
  const char* reply;
  scan_status status;
  const char* text;  // reason or error
};

TEST(ScanVerdict, FollowsTheReply) {
  const std::vector<verdict_row> rows{
      {R"({"ReturnCode": 0, "Blocking-reason": ""})", scan_status::ok, ""},
      {R"({"ReturnCode": -202, "Blocking-reason": "script"})", scan_status::found, "script"},
      {R"({"ReturnCode": -200, "Blocking-reason": "deep"})", scan_status::found, "deep"},
      {R"({"ReturnCode": -199, "Blocking-reason": ""})", scan_status::found, "Return code -199"},
      {R"({"ReturnCode": -100, "Blocking-reason": ""})", scan_status::error,
       "The object could not be read"},
      {R"({"ReturnCode": -1000, "Error": "no definition"})", scan_status::error, "no definition"},
      {R"({"ReturnCode": -1000})", scan_status::error, "Return code -1000"},
      {R"({"ReturnCode": -1})", scan_status::error, "Return code -1"},
      {R"({"ReturnCode": 7})", scan_status::error, "Return code 7"},
      {"{}", scan_status::error, "The reply has no return code"},
      {"[]", scan_status::error, "The reply has no return code"},
  };
  for (const verdict_row& row : rows) {
    const scan_verdict verdict = read_verdict(parse(row.reply).get());
    EXPECT_EQ(verdict.status, row.status) << row.reply;
    EXPECT_EQ(verdict.status == scan_status::found ? verdict.reason : verdict.error, row.text)
        << row.reply;
  }
}

TEST(ScanVerdict, KeepsTheRowsOfInnerObjects) {
  const scan_verdict verdict =
      read_verdict(parse(R"({"ReturnCode": -202, "Blocking-reason": "x", "Results": [
        {"ReturnCode": -202, "File-name": "p.html", "Virusname": "x"},
        {"ReturnCode": 0, "File-name": "p.html/data-url-1", "Virusname": " "}]})")
                       .get());
  ASSERT_EQ(verdict.rows.size(), 2U);
  EXPECT_EQ(verdict.rows[0].reason, "x");
  EXPECT_EQ(verdict.rows[1].name, "p.html/data-url-1");
  EXPECT_EQ(verdict.rows[1].reason, "") << "a blank stands for none";
}

// --- output ---

scan_result result(scan_status status, const std::string& text, const std::string& path = "a") {
  scan_result made;
  made.path = path;
  made.verdict.status = status;
  (status == scan_status::found ? made.verdict.reason : made.verdict.error) = text;
  return made;
}

TEST(ScanOutput, PrintsOneLinePerFile) {
  EXPECT_EQ(text_lines(result(scan_status::ok, ""), false), "a: OK\n");
  EXPECT_EQ(text_lines(result(scan_status::found, "Script"), false), "a: Script FOUND\n");
  EXPECT_EQ(text_lines(result(scan_status::error, "No reply"), false), "a: No reply ERROR\n");
}

TEST(ScanOutput, PrintsInnerObjectsBelowTheirParent) {
  scan_result page = result(scan_status::found, "Script", "page.html");
  page.verdict.rows = {{-202, "page.html", "Script"},
                       {-202, "page.html/data-url-1", "Script"},
                       {0, "page.html/data-url-2", ""},
                       {-100, "page.html/data-url-3", ""}};
  EXPECT_EQ(text_lines(page, false),
            "page.html: Script FOUND\n"
            "  page.html/data-url-1: Script FOUND\n"
            "  page.html/data-url-2: OK\n"
            "  page.html/data-url-3: Return code -100\n");
}

TEST(ScanOutput, ColoursOnlyWhenAsked) {
  EXPECT_EQ(text_lines(result(scan_status::found, "S"), false).find('\033'), std::string::npos);
  EXPECT_NE(text_lines(result(scan_status::found, "S"), true).find('\033'), std::string::npos);
}

TEST(ScanOutput, EscapesWhatCouldSteerATerminal) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"plain name.txt", "plain name.txt"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"\033[2J", "\\x1b[2J"},
      {"a\nb\rc\td", "a\\x0ab\\x0dc\\x09d"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"\x7f", "\\x7f"},
      {"\xc2\x9b", "\\xc2\\x9b"},                    // C1 control
      {"\xff\xc3", "\\xff\\xc3"},                    // no UTF-8
      {"\xe2\x80\xae", "\\xe2\\x80\\xae"},           // right-to-left override
      {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // surrogate
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last code point
  };
  for (const auto& [text, expected] : rows)
    EXPECT_EQ(escape_untrusted(text), expected);
}

TEST(ScanOutput, ReasonsAreEscapedToo) {
  EXPECT_EQ(text_lines(result(scan_status::found, "\033[31mx", "\033]0;t\a"), false),
            "\\x1b]0;t\\x07: \\x1b[31mx FOUND\n");
}

TEST(ScanOutput, JsonIsOneValidLine) {
  scan_result found = result(scan_status::found, "bad \xff reason\n", "na\xfeme\n");
  found.verdict.code = -202;
  found.verdict.rows = {{-202, "na\xfeme", "bad \xff"}};
  const std::string line = json_line(found);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  const kv_json_ptr parsed = parse(line.c_str());
  ASSERT_NE(parsed, nullptr);
  json_object* path = nullptr;
  ASSERT_TRUE(json_object_object_get_ex(parsed.get(), "path", &path));
  EXPECT_STREQ(json_object_get_string(path), "na\xef\xbf\xbdme\n");
  EXPECT_THAT(line, HasSubstr("bad \xef\xbf\xbd reason"));
  EXPECT_THAT(line, HasSubstr("\"status\":\"found\",\"code\":-202"));
}

TEST(ScanOutput, SummaryCountsAndMeasures) {
  const scan_totals totals{.files = 10,
                           .bytes = 5'000'000,
                           .found = 2,
                           .errors = 1,
                           .time = std::chrono::milliseconds(2000)};
  const std::string text = summary(totals);
  for (const char* part : {"Files scanned  10", "Bytes scanned  5.00 MB", "Found          2",
                           "Errors         1", "2.00 s", "5.00 files/s", "2.50 MB/s"}) {
    EXPECT_THAT(text, HasSubstr(part));
  }
}

TEST(ScanOutput, FoundWinsOverErrorInTheStatus) {
  EXPECT_EQ(exit_status({.files = 1}), 0);
  EXPECT_EQ(exit_status({.files = 1, .found = 1}), 1);
  EXPECT_EQ(exit_status({.files = 1, .errors = 1}), 2);
  EXPECT_EQ(exit_status({.files = 1, .found = 1, .errors = 1}), 1);
}

// --- targets ---

TEST_F(ScanFolder, FoldersNeedTheRecursiveOption) {
  write("sub/one", "1");
  const auto plain = collect_targets({folder_}, false);
  ASSERT_EQ(plain.size(), 1U);
  EXPECT_EQ(plain[0].error, "Is a directory (use -r)");
}

TEST_F(ScanFolder, AreWalkedByNameAndLinksAreNotFollowed) {
  write("b", "1");
  write("a/z", "1");
  write("a/y", "1");
  std::filesystem::create_symlink(folder_ + "/b", folder_ + "/link");
  std::filesystem::create_directory_symlink(folder_, folder_ + "/a/loop");
  ASSERT_EQ(::mkfifo((folder_ + "/pipe").c_str(), 0600), 0);
  std::vector<std::string> paths;
  for (const scan_target& target : collect_targets({folder_}, true)) {
    EXPECT_EQ(target.error, "");
    paths.push_back(target.path.substr(folder_.size()));
  }
  EXPECT_THAT(paths, ElementsAre("/a/y", "/a/z", "/b"));
}

TEST_F(ScanFolder, WhatCannotBeScannedIsToldAndTheRestGoesOn) {
  const std::string file = write("file", "1");
  ASSERT_EQ(::mkfifo((folder_ + "/pipe").c_str(), 0600), 0);
  const auto targets = collect_targets({folder_ + "/absent", folder_ + "/pipe", file, "-"}, false);
  ASSERT_EQ(targets.size(), 4U);
  EXPECT_EQ(targets[0].error, "No such file or directory");
  EXPECT_EQ(targets[1].error, "Not a regular file");
  EXPECT_EQ(targets[2].error, "");
  EXPECT_EQ(targets[3].error, "");
}

TEST_F(ScanFolder, ObjectsAreLoadedWholeWithTheirKind) {
  const file_kind_reader kinds;
  const std::string content(200'000, 'x');
  const loaded_object text = load_object(write("text.txt", content), kinds);
  EXPECT_EQ(std::string(text.data.begin(), text.data.end()), content);
  EXPECT_EQ(text.kind.mime, "text/plain");
  EXPECT_THAT(text.kind.type, HasSubstr("ASCII text"));
  const loaded_object empty = load_object(write("empty", ""), kinds);
  EXPECT_TRUE(empty.data.empty());
  EXPECT_EQ(empty.kind.type, "empty");
  EXPECT_ANY_THROW(static_cast<void>(load_object(folder_ + "/absent", kinds)));
  EXPECT_ANY_THROW(static_cast<void>(load_object(folder_, kinds)));
}

TEST(ScanKind, BatchFilesTravelAsPlainText) {
  const file_kind_reader kinds;
  const file_kind kind = kinds.of_bytes(std::string_view("@echo off\r\ndir\r\n"));
  EXPECT_EQ(kind.mime, "text/x-msdos-batch");
  EXPECT_EQ(mime_to_send(kind.mime), "text/plain");
  EXPECT_EQ(mime_to_send("text/html"), "text/html");
}

TEST(ScanKind, ExtensionsKeepTheirDot) {
  EXPECT_EQ(extension_of("/a.b/report.PDF"), ".PDF");
  EXPECT_EQ(extension_of("archive.tar.gz"), ".gz");
  EXPECT_EQ(extension_of("/a.b/none"), "");
  EXPECT_EQ(extension_of(".profile"), "");
}

// --- switches and local scans ---

TEST_F(ScanFolder, SwitchesComeFromNamesOrAFile) {
  const ActiveContent_t named = switches_from_names("FLASH,HTML_SCRIPT");
  EXPECT_EQ(named.slots[KV_AC_FLASH], 1);
  EXPECT_EQ(named.slots[KV_AC_HTML_SCRIPT], 1);
  EXPECT_EQ(named.slots[KV_AC_GIFAR], 0);
  const ActiveContent_t all = switches_from_names("all");
  for (std::size_t slot = 0; slot < KV_AC_JAVASCRIPT_SOURCE; ++slot)
    EXPECT_EQ(all.slots[slot], 1);
  EXPECT_EQ(all.slots[KV_AC_JAVASCRIPT_SOURCE], 0) << "no definition can set it";
  const ActiveContent_t file = switches_from_file(write("d.json", R"({"GIFAR": 1, "FLASH": 0})"));
  EXPECT_EQ(file.slots[KV_AC_GIFAR], 1);
  EXPECT_EQ(file.slots[KV_AC_FLASH], 0);
  EXPECT_ANY_THROW(static_cast<void>(switches_from_names("flash")));
  EXPECT_ANY_THROW(static_cast<void>(switches_from_file(write("e.json", R"({"NO": 1})"))));
  EXPECT_ANY_THROW(static_cast<void>(switches_from_file(write("f.json", "[]"))));
  EXPECT_ANY_THROW(static_cast<void>(switches_from_file(folder_ + "/absent")));
}

TEST(ScanLocal, JudgesByTheSwitches) {
  const std::string page = "<html><script>alert(1)</script></html>";
  const object_description object{"p.html", page.size(), "text/html", "HTML document", ".html"};
  const scan_verdict on = scan_here(switches_from_names("HTML_SCRIPT"), settings())(object, page);
  EXPECT_EQ(on.status, scan_status::found);
  EXPECT_EQ(on.code, KV_RESULT_ACTIVE_CONTENT);
  EXPECT_NE(on.reason, "");
  const scan_verdict off = scan_here(switches_from_names("FLASH"), settings())(object, page);
  EXPECT_EQ(off.status, scan_status::ok);
}

TEST(ScanLocal, EmbeddedContentCountsAsClean) {
  const std::string page = "<html><img src=\"data:text/html,%3Cb%3Ex%3C/b%3E\"></html>";
  const object_description object{"p.html", page.size(), "text/html", "HTML document", ".html"};
  EXPECT_EQ(scan_here(switches_from_names("HTML_SCRIPT"), settings())(object, page).status,
            scan_status::ok);
}

// --- order of results ---

TEST(ScanRun, ResultsComeInOrderWhateverFinishesFirst) {
  constexpr std::size_t kCount = 50;
  std::vector<std::size_t> order;
  std::vector<int> values(kCount);
  run_in_order(
      kCount, 8,
      [&](std::size_t worker, std::size_t index) {
        EXPECT_LT(worker, 8U);
        std::this_thread::sleep_for(std::chrono::milliseconds((kCount - index) % 7));
        values[index] = static_cast<int>(index) + 1;
      },
      [&](std::size_t index) {
        EXPECT_EQ(values[index], static_cast<int>(index) + 1);
        order.push_back(index);
      },
      [] {});
  ASSERT_EQ(order.size(), kCount);
  for (std::size_t index = 0; index < kCount; ++index)
    EXPECT_EQ(order[index], index);
}

TEST(ScanRun, NothingToDoEndsAtOnce) {
  run_in_order(
      0, 4, [](std::size_t, std::size_t) { FAIL(); }, [](std::size_t) { FAIL(); }, [] {});
}

// --- corpus tables ---

TEST_F(ScanFolder, CorpusTablesAreRead) {
  const std::string table = write("t.tsv",
                                  "html/a\ttext/html\tall\t-202\tcaf\\xe9 \\\\ \\' \\n\n"
                                  "pdf/b\tapplication/pdf\tPDF_LAUNCH+PDF_ACROFORM\t0\t\n");
  const std::vector<corpus_row> rows = read_table(table);
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].kind(), "html");
  EXPECT_EQ(rows[0].code, -202);
  EXPECT_EQ(rows[0].reason, "caf\xe9 \\ ' \n");
  EXPECT_EQ(rows[1].reason, "");
  EXPECT_EQ(switch_names(rows[1].switches), "PDF_LAUNCH,PDF_ACROFORM");
  EXPECT_THAT(switch_names("all"), testing::Not(HasSubstr("XML_XSLT")));
  EXPECT_THAT(switch_names("all"), HasSubstr("CSV_INJECTION"));
}

TEST_F(ScanFolder, BrokenCorpusTablesAreRefusedWithTheirLine) {
  for (const char* text : {"only one field\n", "a\tb\tc\tno number\t\n", "a\tb\tc\n"}) {
    const std::string table = write("t.tsv", std::string("a\tb\tall\t0\t\n") + text);
    try {
      static_cast<void>(read_table(table));
      ADD_FAILURE() << text;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("t.tsv:2:"));
    }
  }
  EXPECT_ANY_THROW(static_cast<void>(read_table(folder_ + "/absent")));
}

TEST_F(ScanFolder, EachSetOfSwitchesIsADefinitionOfItsOwn) {
  const std::vector<corpus_row> rows{
      {"a", "m", "FLASH+GIFAR", 0, ""}, {"b", "m", "FLASH", 0, ""}, {"c", "m", "FLASH", 0, ""}};
  const kv_json_ptr root = parse(definitions_for(rows).c_str());
  EXPECT_STREQ(json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN),
               R"({"check-corpus":{"FLASH+GIFAR":{"FLASH":1,"GIFAR":1},"FLASH":{"FLASH":1}}})");
}

TEST_F(ScanFolder, TheManifestGivesTypeAndExtension) {
  write("manifest.tsv", "html/a\t5\tdigest\ttext/html\tHTML document, ASCII text\t.html\n");
  const auto files = read_manifest(folder_);
  ASSERT_TRUE(files.contains("html/a"));
  EXPECT_EQ(files.at("html/a").type, "HTML document, ASCII text");
  EXPECT_EQ(files.at("html/a").extension, ".html");
  EXPECT_TRUE(read_manifest(folder_ + "/absent").empty());
}

}  // namespace
}  // namespace kv_scan
