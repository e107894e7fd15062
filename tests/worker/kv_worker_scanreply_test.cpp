#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/kv_guard.h"
#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

std::string reply_of(const kv_scan_result_ptr& result) {
  const kv_text_ptr text{kv_worker_create_scan_reply(result.get())};
  return text ? text.get() : "(none)";
}

kv_scan_result_ptr result_with_row(std::int32_t code, const char* reason) {
  kv_scan_result_ptr result{kv_worker_new_scan_result()};
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  row->return_code = code;
  row->file_name = strdup("in/a.html");
  row->file_size = 12;
  row->mime_type = strdup("text/html");
  row->mime_encoding = strdup("utf-8");
  row->file_type = strdup("HTML document");
  row->extension = strdup(".html");
  row->blocking_reason = reason == nullptr ? nullptr : strdup(reason);
  row->object_type = 4;
  EXPECT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
  EXPECT_EQ(kv_worker_create_scan_results_summary(result.get()), 0);
  return result;
}

TEST(ScanReply, IsPrettyPrintedWithItsKeysInOrder) {
  EXPECT_EQ(reply_of(result_with_row(-202, "\"x\" detected")),
            "{\n"
            "  \"ReturnCode\":-202,\n"
            "  \"Blocking-reason\":\"\\\"x\\\" detected\",\n"
            "  \"FilesScanned\":1,\n"
            "  \"Results\":[\n"
            "    {\n"
            "      \"ReturnCode\":-202,\n"
            "      \"File-name\":\"in/a.html\",\n"
            "      \"File-size\":12,\n"
            "      \"MIME-type\":\"text/html\",\n"
            "      \"MIME-encoding\":\"utf-8\",\n"
            "      \"File-type\":\"HTML document\",\n"
            "      \"Extension\":\".html\",\n"
            "      \"Object-type\":4,\n"
            "      \"Virusname\":\"\\\"x\\\" detected\"\n"
            "    }\n"
            "  ]\n"
            "}");
}

TEST(ScanReply, CleanFileHasABlankVirusNameAndEmptyReasons) {
  for (const char* reason : {static_cast<const char*>(nullptr), ""}) {
    const std::string reply = reply_of(result_with_row(0, reason));
    EXPECT_NE(reply.find("\"Virusname\":\" \""), std::string::npos) << reply;
    EXPECT_NE(reply.find("\"Blocking-reason\":\"\""), std::string::npos) << reply;
  }
}

TEST(ScanReply, MissingTextsAreSentEmpty) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
  free(result->files[0]->mime_type);
  result->files[0]->mime_type = nullptr;
  const std::string reply = reply_of(result);
  EXPECT_NE(reply.find("\"MIME-type\":\"\""), std::string::npos) << reply;
  EXPECT_NE(reply.find("\"Object-type\":-1"), std::string::npos) << reply;
}

TEST(ScanReply, ReasonsThatWereNeverSetAreLeftOut) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  EXPECT_EQ(reply_of(result),
            "{\n  \"ReturnCode\":0,\n  \"FilesScanned\":0,\n  \"Results\":[\n  ]\n}");
}

TEST(ScanReply, FailedScanHasOnlyCodeAndError) {
  kv_scan_result_ptr result = result_with_row(-1000, "reason");
  free(result->error);
  result->error = strdup("broken");
  EXPECT_EQ(reply_of(result), "{\n  \"ReturnCode\":-1000,\n  \"Error\":\"broken\"\n}");
}

TEST(ScanReply, FailedScanWithoutErrorTextSendsAnEmptyOne) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  result->return_code = -1000;
  EXPECT_EQ(reply_of(result), "{\n  \"ReturnCode\":-1000,\n  \"Error\":\"\"\n}");
}

TEST(ScanReply, BytesThatAreNoUtf8GoAsTheyAre) {
  const std::string reply = reply_of(result_with_row(-202, "\xff\xfe/caf\xe9"));
  EXPECT_NE(reply.find("\"Virusname\":\"\xff\xfe/caf\xe9\""), std::string::npos);
}

TEST(ScanReply, LargestFileSizeIsUnsigned) {
  kv_scan_result_ptr result = result_with_row(0, nullptr);
  result->files[0]->file_size = UINT64_MAX;
  EXPECT_NE(reply_of(result).find("\"File-size\":18446744073709551615"), std::string::npos);
}

TEST(ScanReply, NullIsRefused) {
  EXPECT_EQ(kv_worker_create_scan_reply(nullptr), nullptr);
}

TEST(ServiceInitializeReply, IsSpacedWithItsKeysInOrder) {
  const trace_capture trace;
  const kv_text_ptr text{kv_worker_CreateServiceInitializeReply(
      0, "Active content detection", 0x10001, 0x2002d, 5, 6, 1'700'000'000'000)};
  ASSERT_TRUE(text);
  const std::string expected =
      "{ \"ReturnCode\": 0, \"MajorVersion\": 1, \"MinorVersion\": 45, \"NumberOfViruses\": 5, "
      "\"NumberOfVariants\": 6, \"Timestamp\": 1700000000000, "
      "\"DriverName\": \"Active content detection\" }";
  EXPECT_EQ(text.get(), expected);
  for (const std::string& line :
       {std::string("stored RC"), std::string("Stored numericals"),
        std::string("Stored name \"Active content detection\""),
        std::string("Service Initialize Reply (JSON):"), std::string("Exiting, rc=0x0")}) {
    EXPECT_EQ(trace.count("TRACE", line), 1) << line;
  }
  EXPECT_EQ(trace.count(expected), 1);
}

TEST(ServiceInitializeReply, NeedsADriverName) {
  const trace_capture trace;
  EXPECT_EQ(kv_worker_CreateServiceInitializeReply(0, nullptr, 1, 2, 3, 4, 5), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameter for DriverName"), 1);
}

}  // namespace
