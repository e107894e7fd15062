#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "messaging/kv_amqp_client.h"
#include "support/alloc_faults.h"
#include "support/scan_requests.h"
#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

struct job_fault {
  int after;
  const char* error;
};
class ScanJobFault : public testing::TestWithParam<job_fault> {};
INSTANTIATE_TEST_SUITE_P(
    Records, ScanJobFault,
    testing::Values(job_fault{0, "Failed to allocate scanobject struct"},
                    job_fault{1, "Failed to allocate scanobject->ScanConfig struct"},
                    job_fault{2, "Failed to allocate scanobject-ActiveContent struct"}));
TEST_P(ScanJobFault, IsToldInTheErrorText) {
  const kv_json_ptr request = make_scan_request();
  char error[KV_ERROR_TEXT_SIZE]{};
  const alloc_fault fault{fault_point::operator_new_nothrow, GetParam().after};
  EXPECT_EQ(kv_worker_GetScanJobDetails(request.get(), error), nullptr);
  EXPECT_STREQ(error, GetParam().error);
}

TEST(ScanJobFaults, TextThatCannotBeKeptEndsTheJob) {
  const kv_json_ptr request = make_scan_request();
  int failures = 0;
  for (bool happened = true; happened; ++failures) {
    char error[KV_ERROR_TEXT_SIZE]{};
    const alloc_fault fault{fault_point::duplicate, failures};
    const kv_scanobject_ptr job{kv_worker_GetScanJobDetails(request.get(), error)};
    happened = alloc_fault::happened();
    EXPECT_EQ(job == nullptr, happened);
    EXPECT_EQ(std::strncmp(error, "Failed to allocate ", 19) == 0, happened);
  }
  EXPECT_EQ(failures, 12);  // one per text of the job, and the round without a failure
}

TEST(ScanResultFaults, AreLogged) {
  const trace_capture trace;
  {
    const alloc_fault fault{fault_point::operator_new_nothrow, 0};
    EXPECT_EQ(kv_worker_new_scan_result(), nullptr);
  }
  {
    const alloc_fault fault{fault_point::operator_new_nothrow, 0};
    EXPECT_EQ(kv_worker_new_file_scan_result(), nullptr);
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to allocate new scan result struct"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to allocate new file scan result struct"), 1);
}

class ResultFaults : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0); }

  kv_scan_result_ptr result{kv_worker_new_scan_result()};
  kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
};

TEST_F(ResultFaults, RowThatCannotBeCopiedIsNotAdded) {
  for (int after = 0; after < 7; ++after) {
    const alloc_fault fault{fault_point::duplicate, after};
    EXPECT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), -1);
  }
  EXPECT_EQ(result->file_count, 1);
}

TEST_F(ResultFaults, ArrayThatCannotGrowKeepsItsRows) {
  const trace_capture trace;
  {
    const alloc_fault fault{fault_point::grown, 0};
    EXPECT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), -1);
  }
  EXPECT_EQ(result->file_count, 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to reallocate filescan results: Cannot allocate memory"),
            1);
}

TEST_F(ResultFaults, SummaryWithoutMemoryReportsIt) {
  result->files[0]->return_code = -202;
  for (int after = 0;; ++after) {
    result->return_code = 0;
    const alloc_fault fault{fault_point::operator_new, after};
    const int rc = kv_worker_create_scan_results_summary(result.get());
    EXPECT_EQ(result->return_code, -202);
    if (!alloc_fault::happened()) {
      EXPECT_EQ(rc, 0);
      break;
    }
    EXPECT_EQ(rc, -1);
  }
}

struct reply_fault {
  fault_point point;
  int after;
  const char* log;
};
class ReplyFault : public ResultFaults, public testing::WithParamInterface<reply_fault> {};
INSTANTIATE_TEST_SUITE_P(
    Parts, ReplyFault,
    testing::Values(reply_fault{fault_point::json_new_object, 0,
                                "Failed to allocate new json object reply_json"},
                    reply_fault{fault_point::json_new_array, 0,
                                "Failed to allocate new json object results_array"},
                    reply_fault{fault_point::json_new_object, 1, "Failed to add file-scan result"},
                    reply_fault{fault_point::json_new_string, 0, "Failed to add file-scan result"},
                    reply_fault{fault_point::json_array_add, 0,
                                "Failed to add file-scan result to array"}));
TEST_P(ReplyFault, LeavesNoText) {
  const trace_capture trace;
  char* reply = nullptr;
  {
    const alloc_fault fault{GetParam().point, GetParam().after};
    reply = kv_worker_create_scan_reply(result.get());
  }
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(trace.count("ERROR", GetParam().log), 1);
}

TEST_F(ResultFaults, ReplyThatCannotBeCopiedBecomesAnErrorReply) {
  const alloc_fault fault{fault_point::duplicate, 0};
  const kv_text_ptr reply{kv_worker_create_scan_reply(result.get())};
  ASSERT_TRUE(reply);
  EXPECT_STREQ(reply.get(),
               "{\"ReturnCode\": -1000, \"Error\": \"Failed to create JSON text buffer\"}");
}

TEST(ServiceReplyFaults, AreLogged) {
  const trace_capture trace;
  {
    const alloc_fault fault{fault_point::json_new_object, 0};
    EXPECT_EQ(kv_worker_CreateServiceInitializeReply(0, "name", 1, 2, 3, 4, 5), nullptr);
  }
  {
    const alloc_fault fault{fault_point::duplicate, 0};
    EXPECT_EQ(kv_worker_CreateServiceInitializeReply(0, "name", 1, 2, 3, 4, 5), nullptr);
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to create root JSON object"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to dump JSON Object to string buffer"), 1);
}

}  // namespace
