#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/kv_json.h"
#include "support/alloc_faults.h"
#include "support/scan_requests.h"
#include "support/service_fixture.h"
#include "support/trace_capture.h"

namespace {

class RequestFaults : public testing::Test {
 protected:
  void SetUp() override {
    service.answer_definition(R"([["EXECUTABLE", 1]])");
    set_text(request, "Extension", ".bat");
  }
  // The reply's code.
  std::int32_t handle() {
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread);
    text = pair->reply->json == nullptr ? "" : pair->reply->json;
    const kv_json_ptr reply{json_tokener_parse(text.c_str())};
    std::int32_t code = 1;
    static_cast<void>(kv_json_get_int(reply.get(), "ReturnCode", code));
    return code;
  }

  service_fixture service;
  kv_json_ptr request = make_scan_request();
  std::string text;
};

struct record_fault {
  fault_point point;
  int after;
  const char* name;
  const char* reply;
};
constexpr const char* kBare = "{\"ReturnCode\": -1000}";
constexpr const char* kWithoutText = "{\n  \"ReturnCode\":-1000,\n  \"Error\":\"\"\n}";
class RecordFault : public RequestFaults, public testing::WithParamInterface<record_fault> {};
INSTANTIATE_TEST_SUITE_P(
    Records, RecordFault,
    testing::Values(
        record_fault{fault_point::operator_new_nothrow, 0, "consolidated_scanresult", kBare},
        record_fault{fault_point::zeroed, 0, "consolidated_scanresult->error", kBare},
        record_fault{fault_point::operator_new_nothrow, 1, "file_result", kBare},
        record_fault{fault_point::zeroed, 1, "file_result->blocking_reason", kWithoutText}));
TEST_P(RecordFault, IsAFailedScanWithoutText) {
  const trace_capture trace;
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  {
    const alloc_fault fault{GetParam().point, GetParam().after};
    EXPECT_EQ(
        kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread),
        0);
  }
  EXPECT_STREQ(pair->reply->json, GetParam().reply);
  EXPECT_EQ(trace.count("ERROR", std::string("Failed to allocate ") + GetParam().name), 1);
}

// Whatever single call fails, active content is never called clean.
class VerdictFault : public RequestFaults, public testing::WithParamInterface<fault_point> {};
INSTANTIATE_TEST_SUITE_P(Points, VerdictFault,
                         testing::Values(fault_point::operator_new,
                                         fault_point::operator_new_nothrow, fault_point::duplicate,
                                         fault_point::grown, fault_point::json_new_array,
                                         fault_point::json_new_string, fault_point::json_array_add,
                                         fault_point::json_object_add));
TEST_P(VerdictFault, NeverTurnsIntoClean) {
  ASSERT_EQ(handle(), -202);  // the definition is there from here on
  int rounds = 0;
  for (bool happened = true; happened && rounds < 500; ++rounds) {
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    {
      const alloc_fault fault{GetParam(), rounds};
      kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread);
      happened = alloc_fault::happened();
    }
    ASSERT_NE(pair->reply->json, nullptr) << rounds;
    const kv_json_ptr reply{json_tokener_parse(pair->reply->json)};
    std::int32_t code = 0;  // of the whole, not of a row
    ASSERT_TRUE(kv_json_get_int(reply.get(), "ReturnCode", code)) << pair->reply->json;
    EXPECT_TRUE(code == -202 || code == -1000) << rounds << ": " << pair->reply->json;
    EXPECT_TRUE(happened || code == -202) << rounds;
  }
  EXPECT_GT(rounds, 1);
  EXPECT_LT(rounds, 500);
}

TEST_F(RequestFaults, SummaryThatCannotBeMadeIsLoggedAndTheVerdictStands) {
  const trace_capture trace;
  ASSERT_EQ(handle(), -202);
  bool happened = true;
  int after = 0;
  for (; happened && trace.count("ERROR", "Failed to create scan summary") == 0; ++after) {
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    {
      const alloc_fault fault{fault_point::operator_new, after};
      kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread);
      happened = alloc_fault::happened();
    }
    text = pair->reply->json;
  }
  EXPECT_TRUE(happened) << after;
  EXPECT_EQ(text.rfind("{\n  \"ReturnCode\":-202,", 0), 0U) << text;
}

TEST(GlobalInitFaults, AreReported) {
  const trace_capture trace;
  kv_worker_config_t config{};
  kv_worker_thread_args_t args{};
  char error[KV_ERROR_TEXT_SIZE]{};
  {
    const alloc_fault fault{fault_point::operator_new_nothrow, 0};
    EXPECT_EQ(kv_worker_global_init(&config, &args, error), -1);
  }
  EXPECT_STREQ(error, "Failed to allocate ac_definitions list");
  {
    const alloc_fault fault{fault_point::operator_new_nothrow, 1};
    EXPECT_EQ(kv_worker_global_init(&config, &args, error), -1);
  }
  EXPECT_EQ(trace.count("FATAL", "Failed to allocate serviceDescription"), 1);
  EXPECT_EQ(args.service, nullptr);
}

class DefinitionFaults : public RequestFaults {};

TEST_F(DefinitionFaults, WhatWasReadBeforeMemoryRanOutIsKept) {
  const trace_capture trace;
  service.answer_definition(
      R"([["FLASH", 1], ["A NAME TOO LONG TO BE KEPT WITHOUT AN ALLOCATION", 1], ["GIFAR", 1]])");
  bool kept_some = false;
  for (int after = 0; after < 100 && !kept_some; ++after) {
    kvactivecontent_free_definitions(service.state(), nullptr, nullptr, true);
    {
      const alloc_fault fault{fault_point::operator_new, after};
      static_cast<void>(
          kvactivecontent_load_ac_definition(&service.config, service.state(), "r1", "S1"));
    }
    const auto& all = service.state()->definitions.all();
    kept_some = all.size() == 1 && all[0].parameters && all[0].parameters->size() == 1;
  }
  EXPECT_TRUE(kept_some);
  EXPECT_GE(trace.count("ERROR", "Failed to allocate entry"), 1);
  EXPECT_GE(trace.count("ERROR", "Failed to allocate result"), 1);
}

TEST_F(DefinitionFaults, EntryThatCannotBeStoredIsReported) {
  const trace_capture trace;
  const std::string realm(100, 'r');
  bool happened = true;
  for (int after = 0; happened; ++after) {
    kvactivecontent_free_definitions(service.state(), nullptr, nullptr, true);
    const alloc_fault fault{fault_point::operator_new, after};
    const int rc =
        kvactivecontent_load_ac_definition(&service.config, service.state(), realm.c_str(), "S1");
    happened = alloc_fault::happened();
    EXPECT_EQ(rc == 1, !service.state()->definitions.all().empty()) << after;
  }
  EXPECT_GE(trace.count("ERROR", "Failed to allocate ac_definition"), 1);
}

}  // namespace
