// Children of a tag: srcdoc values and data URLs.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/markup_product.h"
#include "support/trace_capture.h"

using namespace std::string_literals;

namespace {

constexpr auto kClean = [](const markup_child&) { return 0; };
const markup_reference_job kHtml{.html_script = true};

struct child_case {
  std::string text;
  std::vector<std::string> contents;
  const char* error = "";
};

class HtmlChildren : public testing::TestWithParam<child_case> {};

TEST_P(HtmlChildren, AreHandedOnInOrder) {
  const markup_outcome out = markup_product_scan(kHtml, GetParam().text, kClean);
  std::vector<std::string> contents;
  for (const markup_child& child : out.children) {
    contents.push_back(child.content);
  }
  EXPECT_EQ(contents, GetParam().contents);
  EXPECT_EQ(out.error, GetParam().error);
  EXPECT_EQ(out.code, *GetParam().error == '\0' ? 0 : -1000);
}

constexpr const char* kNoSrcdoc = "Failed to extract HTML5 srcdoc";
constexpr const char* kNoDataUrl = "Failed to extract data URL";

INSTANTIATE_TEST_SUITE_P(
    Srcdoc, HtmlChildren,
    testing::Values(child_case{"<iframe srcdoc=\"<b>x</b>\">", {"<b>x</b>"}},
                    child_case{"<iframe SrcDoc='y'>", {"y"}},
                    child_case{"<iframe/srcdoc='y'>", {"y"}},
                    child_case{"<iframe a='b'srcdoc='y'>", {"y"}},
                    child_case{"<iframe srcdoc = / 'y'>", {"y"}},
                    child_case{"<iframe srcdoc\n=\n'y\nz'>", {"yz"}},
                    child_case{"<iframe srcdoc='y\\' a='z'>", {"y\\"}},
                    child_case{"<iframe srcdoc='a' x srcdoc=\"b\">", {"a", "b"}},
                    // Wrong position.
                    child_case{"<iframe xsrcdoc='y'>", {}}, child_case{"<iframe srcdocx='y'>", {}},
                    child_case{"<iframe srcdoc 'y'>", {}}, child_case{"<iframe =srcdoc='y'>", {}},
                    child_case{"<iframe srcdoc>", {}},
                    // Empty or missing.
                    child_case{"<iframe srcdoc=''>", {}}, child_case{"<iframe srcdoc=>", {}},
                    child_case{"<iframe srcdoc= />", {}},
                    // Not readable.
                    child_case{"<iframe srcdoc=y>", {}, kNoSrcdoc},
                    child_case{"<iframe srcdoc='y>", {}, kNoSrcdoc},
                    child_case{"<iframe srcdoc='a' srcdoc=b>", {"a"}, kNoSrcdoc}));

INSTANTIATE_TEST_SUITE_P(
    DataUrl, HtmlChildren,
    testing::Values(child_case{"<a b=\"data:,xy\">", {"xy"}},
                    child_case{"<a b='DATA:text/plain,xy'>", {"xy"}},
                    child_case{"<a b= \t\f/' \t\fdata:,xy'>", {"xy"}},
                    child_case{"<a b=\n\"\ndata:,xy\">", {"xy"}},
                    child_case{"<a b='data:,x' c='data:,y'>", {"x", "y"}},
                    child_case{"<a b='data:,x,y;base64,z'>", {"x,y;base64,z"}},
                    child_case{"<a b='data:,\"x\"'>", {"\"x\""}},
                    child_case{"<a b='data:,x\\' c>", {"x\\"}},
                    // Percent-decoding.
                    child_case{"<a b='data:,%41%4a%4A+%zz%4%'>", {"AJJ+%zz%4%"}},
                    child_case{"<a b='data:,%00x'>", {"\0x"s}},
                    // Wrong position.
                    child_case{"<a b=data:,xy>", {}}, child_case{"<a b='x data:,xy'>", {}},
                    child_case{"<a 'data:,xy'>", {}}, child_case{"<a b='/data:,xy'>", {}},
                    child_case{"<a b'data:,xy>", {}},
                    // Nothing in it.
                    child_case{"<a b='data:xy'>", {}}, child_case{"<a b='data:'>", {}},
                    child_case{"<a b='data:xy' c=','>", {}}, child_case{"<a b='data:,'>", {}},
                    child_case{"<a b='data:;base64, '>", {}},
                    // Not readable.
                    child_case{"<a b='data:,xy>", {}, kNoDataUrl},
                    child_case{"<a b='data:xy>", {}, kNoDataUrl}));

INSTANTIATE_TEST_SUITE_P(
    Base64, HtmlChildren,
    testing::Values(child_case{"<a b='data:;base64,QUJD'>", {"ABC"}},
                    child_case{"<a b='data:BASE64x,QUJD'>", {"ABC"}},
                    child_case{"<a b='data:;base64,QUI='>", {"AB"}},
                    child_case{"<a b='data:;base64,QUI'>", {"AB"}},
                    child_case{"<a b='data:;base64,QQ=='>", {"A"}},
                    child_case{"<a b='data:;base64,QQ='>", {"A"}},
                    child_case{"<a b='data:;base64,QQ'>", {"A"}},
                    child_case{"<a b='data:;base64, Q\tU\nJ\fD\r'>", {"ABC"}},
                    child_case{"<a b='data:;base64,%51UJ%44%20'>", {"ABC"}},
                    child_case{"<a b='data:;base64,+/+/'>", {"\xfb\xff\xbf"}},
                    child_case{"<a b='data:;base64,QUJDR'>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,Q'>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QUJD='>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QQ==='>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QQ==QQ=='>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,='>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QU-D'>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QU%zz'>", {}, kNoDataUrl},
                    child_case{"<a b='data:;base64,QU\xc3\xa4'>", {}, kNoDataUrl}));

// A scan over a job whose callable is the test's own.
struct child_scan {
  kv_scanobject_ptr job;
  kv_markup_environment environment = kv_markup_default_environment();
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};

  explicit child_scan(std::string_view text) : job(make_markup_job(kHtml, text)) {}
  std::int32_t run(kv_scan_result_t* consolidated = nullptr,
                   std::int64_t time_left_ms = KV_NO_TIME_LIMIT) {
    return kv_scan_markup(environment, job.get(), consolidated, reason.data(), error.data(), 7,
                          time_left_ms);
  }
};

}  // namespace

TEST(HtmlChildNames, CountPerJobFromOne) {
  markup_reference_job job = kHtml;
  job.name = "dir/page.html";
  const markup_outcome out = markup_product_scan(
      job, "<a srcdoc='' b='data:,x' srcdoc='y'><c d='data:x' e='data:,z'>", kClean);
  ASSERT_EQ(out.children.size(), 3U);
  EXPECT_EQ(out.children[0].name, "dir/page.html/srcdoc-1");
  EXPECT_EQ(out.children[1].name, "dir/page.html/data-url-2");
  EXPECT_EQ(out.children[2].name, "dir/page.html/data-url-3");
}

TEST(HtmlChildCalls, CarryFlagTimeAndBuffers) {
  struct seen {
    std::uint8_t flag = 0;
    std::int64_t time_left_ms = 0;
    kv_scan_result_t* consolidated = nullptr;
  } got;
  kv_scan_result_ptr consolidated{kv_worker_new_scan_result()};
  child_scan scan("<a b='data:,x'>");
  scan.environment.now_ms = [] { return std::int64_t{1000}; };
  scan.job->embedded = {
      [](void* context, scanobject*, kv_scan_result_t* result, const void*, std::uint64_t,
         const char*, std::uint8_t flag, std::int64_t time_left_ms, char* reason, char* error) {
        *static_cast<seen*>(context) = {flag, time_left_ms, result};
        std::strcpy(reason, "why");
        std::strcpy(error, "what");
        return std::int32_t{-100};
      },
      &got};
  EXPECT_EQ(scan.run(consolidated.get(), 250), -100);
  EXPECT_EQ(got.flag, 7);
  EXPECT_EQ(got.time_left_ms, 250);
  EXPECT_EQ(got.consolidated, consolidated.get());
  EXPECT_STREQ(scan.reason.data(), "why");
  EXPECT_STREQ(scan.error.data(), "what");
}

TEST(HtmlChildCalls, MergeASrcdocsOwnResult) {
  struct seen {
    kv_scan_result_t* fresh = nullptr;
    const kv_scan_result_t* merged = nullptr;
    kv_scan_result_t* into = nullptr;
    int merge_code = 0;
  };
  for (const int merge_code : {0, -1}) {
    seen got{.merge_code = merge_code};
    kv_scan_result_ptr consolidated{kv_worker_new_scan_result()};
    child_scan scan("<a srcdoc='x'>");
    scan.job->embedded.context = &got;
    scan.job->embedded.scan = [](void* context, scanobject*, kv_scan_result_t* result, const void*,
                                 std::uint64_t, const char*, std::uint8_t, std::int64_t, char*,
                                 char*) {
      static_cast<seen*>(context)->fresh = result;
      return std::int32_t{-202};
    };
    scan.job->embedded.merge = [](void* context, kv_scan_result_t* into,
                                  const kv_scan_result_t* latest) {
      auto& record = *static_cast<seen*>(context);
      record.merged = latest;
      record.into = into;
      return record.merge_code;
    };
    EXPECT_EQ(scan.run(consolidated.get()), merge_code == 0 ? -202 : -1000);
    EXPECT_NE(got.fresh, nullptr);
    EXPECT_NE(got.fresh, consolidated.get());
    EXPECT_EQ(got.merged, got.fresh);
    EXPECT_EQ(got.into, consolidated.get());
  }
}

TEST(HtmlChildCalls, AreCleanWithoutACallable) {
  child_scan scan("<a srcdoc='x' b='data:,y'>");
  EXPECT_EQ(scan.run(), 0);
  EXPECT_EQ(scan.job->child_count, 2U);
}

TEST(HtmlChildCalls, FailWithoutAResultRecord) {
  child_scan scan("<a srcdoc='x'>");
  scan.environment.new_result = []() -> kv_scan_result_t* { return nullptr; };
  EXPECT_EQ(scan.run(), -1000);
  EXPECT_STREQ(scan.error.data(), "Failed to allocate result struct for recursive scan");
}

TEST(HtmlChildCalls, StopWhenTheTimeIsSpent) {
  static std::int64_t now;
  now = 0;
  child_scan scan("<a b='data:,x' c='data:,y'>");
  scan.environment.now_ms = [] { return now; };
  int calls = 0;
  scan.job->embedded = {[](void* context, scanobject*, kv_scan_result_t*, const void*,
                           std::uint64_t, const char*, std::uint8_t, std::int64_t, char*, char*) {
                          ++*static_cast<int*>(context);
                          now += 100;
                          return std::int32_t{0};
                        },
                        &calls};
  EXPECT_EQ(scan.run(nullptr, 100), -1000);
  EXPECT_EQ(calls, 1);
  EXPECT_STREQ(scan.error.data(), "Service side timeout");
}

struct allocation_case {
  const char* text;
  const char* log;
};
class HtmlChildAllocation : public testing::TestWithParam<allocation_case> {};

TEST_P(HtmlChildAllocation, FailsTheScan) {
  const trace_capture trace;
  child_scan scan(GetParam().text);
  scan.environment.allocate = [](std::size_t) -> void* { return nullptr; };
  EXPECT_EQ(scan.run(), -1000);
  EXPECT_STREQ(scan.error.data(), "Failed to extract data URL");
  EXPECT_EQ(trace.count("ERROR", GetParam().log), 1);
}

INSTANTIATE_TEST_SUITE_P(
    DataUrl, HtmlChildAllocation,
    testing::Values(
        allocation_case{"<a b='data:;base64,%51'>", "Memory allocation failed (data_raw)"},
        allocation_case{"<a b='data:;base64,QUJD'>", "failed to allocate 6 bytes for plain"},
        allocation_case{"<a b='data:,%51'>", "memory allocation (urldecoded) failed."}));

struct log_case {
  const char* text;
  const char* log;
};
class HtmlChildLog : public testing::TestWithParam<log_case> {};

TEST_P(HtmlChildLog, NamesWhatHappened) {
  const trace_capture trace;
  static_cast<void>(markup_product_scan(kHtml, GetParam().text, kClean));
  EXPECT_GE(trace.count(GetParam().log), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, HtmlChildLog,
    testing::Values(log_case{"<a srcdoc='x'><b>", "No srcdoc element"},
                    log_case{"<a xsrcdoc='x'>", "srcdoc element in invalid position"},
                    log_case{"<a srcdoc='xy'>", "Getting quoted content in 'xy'"},
                    log_case{"<a srcdoc='xy>", "no matching quote to ' found"},
                    log_case{"<a srcdoc=''>", "zero-length srcdoc"},
                    log_case{"<a srcdoc='xy'>", "Quoted data is 2 bytes long"},
                    log_case{"<a srcdoc='xy'>", "Quoted data: xy"},
                    log_case{"<a srcdoc='xy'>", "Recursive Scan (srcdoc) returns 0"},
                    log_case{"<a b='data:,x'>", "Checking for data URL"},
                    log_case{"<a b='data:,x'><c>", "No data-URL found"},
                    log_case{"<a b=data:,x>", "data tag invalid position"},
                    log_case{"<a b='data:;base64,QQ'>", "data URL is base64-encoded"},
                    log_case{"<a b='data:x'>", "begin of data-part not found"},
                    log_case{"<a b='data:,x>", "Could not find end of the data segment"},
                    log_case{"<a b='data:,x'>", "Recursive Scan (data URL) returns 0"}));
