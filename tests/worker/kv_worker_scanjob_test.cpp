#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/kv_time.h"
#include "messaging/kv_amqp_client.h"
#include "support/scan_requests.h"
#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

kv_scanobject_ptr build(const kv_json_ptr& request, std::string* error = nullptr) {
  char text[KV_ERROR_TEXT_SIZE]{};
  kv_scanobject_ptr job{kv_worker_GetScanJobDetails(request.get(), text)};
  if (error != nullptr) {
    *error = text;
  }
  return job;
}

TEST(ScanJob, EveryKeyFindsItsField) {
  const kv_json_ptr request = make_scan_request();
  set_number(request, "ObjectLen", 5'000'000'001);
  set_number(request, "Recursion", 4);
  set_number(request, "SCANTIMEOUT", 20);
  const kv_scanobject_ptr job = build(request);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->request, request.get());
  EXPECT_STREQ(job->object_name, "in/report.bin");
  EXPECT_EQ(job->object_length, 5'000'000'001);
  EXPECT_STREQ(job->services, "kv-av-cloudscan");
  EXPECT_EQ(job->recursion, 4);
  EXPECT_EQ(job->shm_id, -1);
  EXPECT_EQ(job->check_mime_type, 1);
  EXPECT_EQ(job->active_content_policy, 2);
  EXPECT_EQ(job->extract, 3);
  EXPECT_EQ(job->extract_depth, 7);
  EXPECT_EQ(job->extract_max_files, 5'000'000'000);
  EXPECT_EQ(job->extract_size, 6'000'000'000);
  EXPECT_EQ(job->extension_max_length, 8);
  EXPECT_EQ(job->extract_ratio, 99);
  EXPECT_TRUE(job->extract_no_virusscan);
  EXPECT_EQ(job->enforce_mime_policy_in_archives, 0);
  EXPECT_EQ(job->enforce_activecontent_policy_in_archives, 0);
  EXPECT_STREQ(job->block_extensions, "exe");
  EXPECT_STREQ(job->scan_extensions, "*");
  EXPECT_STREQ(job->block_mime_types, "application/x-dosexec");
  EXPECT_STREQ(job->scan_mime_types, "text/*");
  EXPECT_STREQ(job->mime_type, "text/plain");
  EXPECT_STREQ(job->file_type, "ASCII text");
  EXPECT_STREQ(job->extension, ".txt");
  EXPECT_STREQ(job->realm_id, "r1");
  EXPECT_STREQ(job->event_id, "e-1");
  const ScanConfig_t& config = *job->ScanConfig;
  EXPECT_EQ(config.enforce_mime_extension_match, 11);
  EXPECT_EQ(config.block_encrypted, 12);
  EXPECT_EQ(config.block_html_in_pdf, 13);
  EXPECT_EQ(config.scan_base64, 14);
  EXPECT_EQ(config.scan_uuencoded, 15);
  EXPECT_EQ(config.scan_xml_content, 16);
  EXPECT_EQ(config.long_mime_types, 17);
  EXPECT_EQ(config.scan_min_size, 18);
  EXPECT_EQ(config.scan_max_size, 19);
  EXPECT_EQ(config.html_detection, 1);
  EXPECT_EQ(config.scan_timeout, 20);
  EXPECT_EQ(config.scan_bandwidth, 21);
}

TEST(ScanJob, SwitchesAreOffUntilADefinitionTurnsThemOn) {
  const kv_scanobject_ptr job = build(make_scan_request());
  ASSERT_TRUE(job);
  for (const std::uint8_t slot : job->ActiveContent->slots) {
    EXPECT_EQ(slot, 0);
  }
}

// The six required keys alone.
kv_json_ptr sparse_request() {
  return kv_json_ptr{json_tokener_parse(
      R"({"ObjectName": "o", "Services": "s", "shmID": "ffffffff", "realmID": "r",
          "EventID": "e", "HTMLDETECTION": "ON"})")};
}

TEST(ScanJob, AbsentKeysLeaveTheDefaults) {
  const kv_scanobject_ptr job = build(sparse_request());
  ASSERT_TRUE(job);
  EXPECT_EQ(job->recursion, 0);
  EXPECT_EQ(job->object_length, 0);
  EXPECT_EQ(job->extract_depth, 20);
  EXPECT_EQ(job->extract_size, 0);
  EXPECT_EQ(job->extract_ratio, 1032);
  EXPECT_EQ(job->extract_max_files, 0);
  EXPECT_FALSE(job->extract_no_virusscan);
  EXPECT_EQ(job->extension_max_length, 5);
  EXPECT_EQ(job->active_content_policy, 0);
  EXPECT_EQ(job->extract, 0);
  EXPECT_EQ(job->check_mime_type, 0);
  EXPECT_EQ(job->enforce_mime_policy_in_archives, 1);
  EXPECT_EQ(job->enforce_activecontent_policy_in_archives, 1);
  for (const char* text : {job->block_extensions, job->scan_extensions, job->block_mime_types,
                           job->scan_mime_types, job->mime_type, job->file_type, job->extension}) {
    EXPECT_STREQ(text, "");
  }
  EXPECT_EQ(job->ScanConfig->block_encrypted, 0);
  EXPECT_EQ(job->ScanConfig->scan_max_size, 0);
  EXPECT_EQ(job->ScanConfig->scan_timeout, 0);
}

TEST(ScanJob, AbsentNumbersAreLoggedAndSilentKeysAreNot) {
  const trace_capture trace;
  ASSERT_TRUE(build(sparse_request()));
  for (const char* key : {"ObjectLen",
                          "Recursion",
                          "CUST_CHECK_MIME_TYPE",
                          "CUST_ACTIVE_CONTENT",
                          "SCANEXTRACT_DEPTH",
                          "SCANEXTRACT_MAX_FILES",
                          "SCANEXTRACT_SIZE",
                          "SCANEXTRACT_RATIO",
                          "ENFORCE_MIME_POLICY_IN_ARCHIVES",
                          "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES",
                          "ENFORCE_MIME_EXTENSION_MATCH",
                          "BLOCKENCRYPTED",
                          "BLOCKHTML_IN_PDF",
                          "SCANBASE64",
                          "SCANUUENCODED",
                          "SCANXMLCONTENT",
                          "LONGMIMETYPES",
                          "SCAN_MIN_SIZE",
                          "SCAN_MAX_SIZE",
                          "SCANTIMEOUT",
                          "SCANBANDWIDTH"}) {
    EXPECT_EQ(trace.count("WARN", std::string("Object ") + key + " not found"), 1) << key;
  }
  EXPECT_EQ(trace.count("WARN", "Object SCANEXTRACT not found"), 1);
  EXPECT_EQ(trace.count("not found"), 22);
}

TEST(ScanJob, KeysAreReadInTheirOrder) {
  const trace_capture trace;
  ASSERT_TRUE(build(sparse_request()));
  const std::vector<std::string> order{"ObjectLen",
                                       "Recursion",
                                       "CUST_CHECK_MIME_TYPE",
                                       "CUST_ACTIVE_CONTENT",
                                       "SCANEXTRACT",
                                       "SCANEXTRACT_DEPTH",
                                       "SCANEXTRACT_MAX_FILES",
                                       "SCANEXTRACT_SIZE",
                                       "SCANEXTRACT_RATIO",
                                       "ENFORCE_MIME_POLICY_IN_ARCHIVES",
                                       "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES",
                                       "ENFORCE_MIME_EXTENSION_MATCH",
                                       "BLOCKENCRYPTED",
                                       "BLOCKHTML_IN_PDF",
                                       "SCANBASE64",
                                       "SCANUUENCODED",
                                       "SCANXMLCONTENT",
                                       "LONGMIMETYPES",
                                       "SCAN_MIN_SIZE",
                                       "SCAN_MAX_SIZE",
                                       "SCANTIMEOUT",
                                       "SCANBANDWIDTH"};
  std::size_t next = 0;
  for (const std::string& line : trace.lines()) {
    if (next < order.size() &&
        line.find("Object " + order[next] + " not found") != std::string::npos) {
      ++next;
    }
  }
  EXPECT_EQ(next, order.size());
}

TEST(ScanJob, BuildingLeavesItsSteps) {
  const trace_capture trace;
  const kv_json_ptr request = make_scan_request();
  set_number(request, "SCANTIMEOUT", 1234);
  ASSERT_TRUE(build(request));
  for (const char* text :
       {"Entering", "Allocated scanjob struct", "Allocated scanjob->scanconfig struct",
        "Allocated scanjob->ActiveContent struct", "Scan-Timeout: 1234"}) {
    EXPECT_EQ(trace.count("TRACE", text), 1) << text;
  }
}

class RequiredKey : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Keys, RequiredKey,
                         testing::Values("ObjectName", "Services", "shmID", "realmID", "EventID",
                                         "HTMLDETECTION"));

TEST_P(RequiredKey, AbsentRejectsTheRequest) {
  const trace_capture trace;
  const kv_json_ptr request = make_scan_request();
  drop_key(request, GetParam());
  std::string error;
  EXPECT_FALSE(build(request, &error));
  const std::string expected = std::string("Failed to read ") + GetParam() + " from JSON";
  EXPECT_EQ(error, expected);
  EXPECT_EQ(trace.count("ERROR", expected), 1);
}

TEST_P(RequiredKey, EmptyRejectsTheRequest) {
  const trace_capture trace;
  const kv_json_ptr request = make_scan_request();
  set_text(request, GetParam(), "");
  std::string error;
  EXPECT_FALSE(build(request, &error));
  const std::string expected = std::string("Key ") + GetParam() + " found, but value is empty";
  EXPECT_EQ(error, expected);
  EXPECT_EQ(trace.count("ERROR", expected), 1);
}

TEST_P(RequiredKey, NullCountsAsEmpty) {
  const kv_json_ptr request = make_scan_request();
  json_object_object_add(request.get(), GetParam(), nullptr);
  std::string error;
  EXPECT_FALSE(build(request, &error));
  EXPECT_EQ(error, std::string("Key ") + GetParam() + " found, but value is empty");
}

TEST(ScanJob, FirstFaultInReadingOrderIsReported) {
  const kv_json_ptr request = make_scan_request();
  drop_key(request, "EventID");
  set_text(request, "shmID", "");
  std::string error;
  EXPECT_FALSE(build(request, &error));
  EXPECT_EQ(error, "Key shmID found, but value is empty");
}

struct mode_case {
  const char* text;
  std::int32_t mode;
};
class HtmlDetection : public testing::TestWithParam<mode_case> {};
INSTANTIATE_TEST_SUITE_P(Texts, HtmlDetection,
                         testing::Values(mode_case{"OFF", 0}, mode_case{"off", 0},
                                         mode_case{"oFf", 0}, mode_case{"RESTRICTIVE", 2},
                                         mode_case{"Restrictive", 2}, mode_case{"Svg", 3},
                                         mode_case{"SVG", 3}, mode_case{"ON", 1},
                                         mode_case{"OFF ", 1}, mode_case{"anything", 1}));
TEST_P(HtmlDetection, ModeFollowsTheText) {
  const kv_json_ptr request = make_scan_request();
  set_text(request, "HTMLDETECTION", GetParam().text);
  const kv_scanobject_ptr job = build(request);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->ScanConfig->html_detection, GetParam().mode);
}

struct segment_case {
  const char* text;
  std::int32_t id;
};
class SegmentId : public testing::TestWithParam<segment_case> {};
INSTANTIATE_TEST_SUITE_P(Texts, SegmentId,
                         testing::Values(segment_case{"0xffffffff", -1},
                                         segment_case{"FFFFFFFF", -1}, segment_case{"0x10", 16},
                                         segment_case{"10", 16},
                                         segment_case{"7fffffff", INT32_MAX},
                                         segment_case{"no number", 0},
                                         segment_case{"0xffffffffffffffffffff", -1}));
TEST_P(SegmentId, IsReadAsHexadecimal) {
  const kv_json_ptr request = make_scan_request();
  set_text(request, "shmID", GetParam().text);
  const kv_scanobject_ptr job = build(request);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->shm_id, GetParam().id);
}

TEST(ScanJob, ExtensionLengthIsReplacedByPositiveValuesOnly) {
  for (const std::int64_t value : {std::int64_t{0}, std::int64_t{-3}}) {
    const kv_json_ptr request = make_scan_request();
    set_number(request, "SCAN_EXTENSION_MAX_LEN", value);
    const kv_scanobject_ptr job = build(request);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->extension_max_length, 5);
  }
}

TEST(ScanJob, AbsentExtensionLengthIsSilent) {
  const trace_capture trace;
  const kv_json_ptr request = make_scan_request();
  drop_key(request, "SCAN_EXTENSION_MAX_LEN");
  ASSERT_TRUE(build(request));
  EXPECT_EQ(trace.count("SCAN_EXTENSION_MAX_LEN"), 0);
}

TEST(ScanJob, NoVirusScanNeedsExactlyOne) {
  for (const std::int64_t value : {0, 2, -1}) {
    const kv_json_ptr request = make_scan_request();
    set_number(request, "SCANEXTRACT_NO_VIRUSSCAN", value);
    const kv_scanobject_ptr job = build(request);
    ASSERT_TRUE(job);
    EXPECT_FALSE(job->extract_no_virusscan) << value;
  }
}

TEST(ScanJob, SizesOfTheConfigurationAreReadAs32Bits) {
  const kv_json_ptr request = make_scan_request();
  set_number(request, "SCAN_MAX_SIZE", 5'000'000'000);
  const kv_scanobject_ptr job = build(request);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->ScanConfig->scan_max_size, INT32_MAX);
}

TEST(ScanJob, ValuesOfOtherTypesAreConverted) {
  const kv_json_ptr request = make_scan_request();
  set_text(request, "SCANTIMEOUT", "250");
  set_number(request, "ObjectName", 42);
  json_object_object_add(request.get(), "SCANEXTRACT", json_object_new_object());
  json_object_object_add(request.get(), "MIME-type", json_object_new_array());
  const kv_scanobject_ptr job = build(request);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->ScanConfig->scan_timeout, 250);
  EXPECT_STREQ(job->object_name, "42");
  EXPECT_EQ(job->extract, 0);
  EXPECT_STREQ(job->mime_type, "[ ]");
}

TEST(ScanJob, RequestThatIsNoObjectIsRejected) {
  std::string error;
  EXPECT_FALSE(build(kv_json_ptr{json_object_new_array()}, &error));
  EXPECT_EQ(error, "Failed to read ObjectName from JSON");
  EXPECT_FALSE(build(nullptr, &error));
  EXPECT_EQ(error, "Failed to read ObjectName from JSON");
}

TEST(ScanJob, FreeClearsThePointerAndLeavesTheRequest) {
  const kv_json_ptr request = make_scan_request();
  scanobject* job = build(request).release();
  ASSERT_NE(job, nullptr);
  kv_worker_FreeScanObject(&job);
  EXPECT_EQ(job, nullptr);
  kv_worker_FreeScanObject(&job);
  kv_worker_FreeScanObject(nullptr);
  EXPECT_TRUE(json_object_object_get_ex(request.get(), "ObjectName", nullptr));
}

TEST(ScanJob, NewJobHasBothBlocksAndNoLimit) {
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  ASSERT_TRUE(job);
  EXPECT_NE(job->ActiveContent, nullptr);
  EXPECT_NE(job->ScanConfig, nullptr);
  EXPECT_EQ(job->shm_id, -1);
  EXPECT_EQ(job->extract_depth, 20);
  EXPECT_EQ(kv_scan_time_left_ms(*job), KV_NO_TIME_LIMIT);
}

TEST(ScanTime, IsWhatTheElapsedTimeLeaves) {
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  job->limit_ms = 10'000;
  job->start_ms = kv_current_time_ms() - 4'000;
  EXPECT_LE(kv_scan_time_left_ms(*job), 6'000);
  EXPECT_GT(kv_scan_time_left_ms(*job), 0);
  job->start_ms = kv_current_time_ms() - 11'000;
  EXPECT_LE(kv_scan_time_left_ms(*job), 0);
}

TEST(ScanTime, StartInTheFutureCountsAsNow) {
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  job->limit_ms = 10'000;
  job->start_ms = kv_current_time_ms() + 3'600'000;
  EXPECT_EQ(kv_scan_time_left_ms(*job), 10'000);
}

TEST(ScanTime, SmallestLimitDoesNotOverflow) {
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  job->limit_ms = INT64_MIN;
  job->start_ms = 0;
  EXPECT_LE(kv_scan_time_left_ms(*job), 0);
}

}  // namespace
