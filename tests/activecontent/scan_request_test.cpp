#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_json.h"
#include "common/kv_time.h"
#include "support/scan_requests.h"
#include "support/service_fixture.h"
#include "support/trace_capture.h"

namespace {

class ScanRequest : public testing::Test {
 protected:
  void SetUp() override { service.answer_definition("[]"); }

  // The reply's text.
  std::string handle(const std::string& bytes = "") {
    set_number(request, "ObjectLen", static_cast<std::int64_t>(bytes.size()));
    return handle_as_is(bytes.data(), bytes.size());
  }
  std::string handle_as_is(const void* data, std::uint64_t size) {
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    pair->request->data = data;
    pair->request->data_size = size;
    EXPECT_EQ(
        kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread),
        0);
    return pair->reply->json == nullptr ? "(none)" : pair->reply->json;
  }
  static kv_json_ptr parse(const std::string& reply) {
    return kv_json_ptr{json_tokener_parse(reply.c_str())};
  }
  static std::int32_t code(const kv_json_ptr& reply) {
    std::int32_t value = 1;
    EXPECT_TRUE(kv_json_get_int(reply.get(), "ReturnCode", value));
    return value;
  }
  static json_object* row(const kv_json_ptr& reply) {
    json_object* rows = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(reply.get(), "Results", &rows));
    EXPECT_EQ(json_object_array_length(rows), 1U);
    return json_object_array_get_idx(rows, 0);
  }
  static std::string text(json_object* object, const char* key) {
    std::string out;
    static_cast<void>(kv_json_get_text(object, key, out));
    return out;
  }
  static std::string failed(const std::string& error) {
    return "{\n  \"ReturnCode\":-1000,\n  \"Error\":\"" + error + "\"\n}";
  }

  service_fixture service;
  kv_json_ptr request = make_scan_request();
};

TEST_F(ScanRequest, CleanObjectHasOneCleanRow) {
  const kv_json_ptr reply = parse(handle("hello"));
  EXPECT_EQ(code(reply), 0);
  EXPECT_EQ(text(row(reply), "File-name"), "in/report.bin");
  EXPECT_EQ(text(row(reply), "File-size"), "5");
  EXPECT_EQ(text(row(reply), "Virusname"), " ");
  EXPECT_EQ(text(row(reply), "MIME-type"), "");
  EXPECT_EQ(text(reply.get(), "FilesScanned"), "1");
}

TEST_F(ScanRequest, DetectionBlocksWithItsReason) {
  service.answer_definition(R"([["EXECUTABLE", 1]])");
  set_text(request, "Extension", ".bat");
  const kv_json_ptr reply = parse(handle("@echo off"));
  EXPECT_EQ(code(reply), -202);
  EXPECT_EQ(text(reply.get(), "Blocking-reason"), "\"DOS Batch file\" detected");
  EXPECT_EQ(text(row(reply), "Virusname"), "\"DOS Batch file\" detected");
  EXPECT_EQ(text(row(reply), "ReturnCode"), "-202");
}

TEST_F(ScanRequest, SwitchesFollowTheDefinitionOfTheRequestsTenant) {
  set_text(request, "Extension", ".bat");
  service.answer_definition(R"([["EXECUTABLE", 0]])");
  EXPECT_EQ(code(parse(handle("@echo off"))), 0);
  service.answer_definition(R"([["EXECUTABLE", 1]])");
  EXPECT_EQ(code(parse(handle("@echo off"))), 0);  // r1/S1 is known
  set_text(request, "SID", "S2");
  EXPECT_EQ(code(parse(handle("@echo off"))), -202);
}

struct tenant_case {
  const char* key;
  bool drop;
  const char* log;
};
class Tenant : public ScanRequest, public testing::WithParamInterface<tenant_case> {};
INSTANTIATE_TEST_SUITE_P(
    Keys, Tenant,
    testing::Values(tenant_case{"realmID", true, "Failed to read realmID from JSON"},
                    tenant_case{"realmID", false, "Key realmID found, but value is empty"},
                    tenant_case{"SID", true, "Failed to read SID from JSON"},
                    tenant_case{"SID", false, "Key SID found, but value is empty"}));
TEST_P(Tenant, IsRequired) {
  const trace_capture trace;
  if (GetParam().drop) {
    drop_key(request, GetParam().key);
  } else {
    set_text(request, GetParam().key, "");
  }
  EXPECT_EQ(handle("x"), "{\"ReturnCode\": -1}");
  EXPECT_EQ(trace.count("ERROR", GetParam().log), 1);
  EXPECT_TRUE(service.questions().empty());
}

TEST_F(ScanRequest, RealmIsReadBeforeSid) {
  const trace_capture trace;
  drop_key(request, "realmID");
  drop_key(request, "SID");
  EXPECT_EQ(handle(), "{\"ReturnCode\": -1}");
  EXPECT_EQ(trace.count("SID from JSON"), 0);
}

TEST_F(ScanRequest, JobThatCannotBeBuiltIsAFailedScan) {
  const trace_capture trace;
  drop_key(request, "shmID");
  EXPECT_EQ(handle("x"), failed("Failed to get scan job details from MQ message"));
  EXPECT_EQ(trace.count("ERROR", "Failed to read shmID from JSON"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to get scan job details from MQ message"), 1);
  EXPECT_TRUE(service.questions().empty());
}

TEST_F(ScanRequest, MissingDefinitionIsAFailedScan) {
  const trace_capture trace;
  service.answer("");
  EXPECT_EQ(handle("x"), failed("Failed to get active content definitions for r1/S1"));
  EXPECT_EQ(trace.count("ERROR", "Failed to get active content definitions for r1/S1"), 2);
}

TEST_F(ScanRequest, LongErrorIsCutToItsBuffer) {
  service.answer("");
  set_text(request, "realmID", std::string(3000, 'r'));
  const std::string expected =
      ("Failed to get active content definitions for " + std::string(3000, 'r')).substr(0, 1023);
  EXPECT_EQ(handle("x"), failed(expected));
}

TEST_F(ScanRequest, SegmentThatIsNotThereIsAFailedScan) {
  const trace_capture trace;
  set_text(request, "shmID", "0x7ffffff0");
  set_number(request, "ObjectLen", 4);
  EXPECT_EQ(handle_as_is(nullptr, 0), failed("Failed to attach shared memory segment"));
  EXPECT_EQ(trace.count("Attaching shared memory segment ID: 0x7ffffff0"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to attach shared memory segment"), 1);
}

// A segment of another process's making, with what it holds. Marked for removal by its first user.
int make_segment(const std::string& bytes) {
  const int id = shmget(IPC_PRIVATE, std::max<std::size_t>(bytes.size(), 1), IPC_CREAT | 0600);
  EXPECT_GE(id, 0);
  void* address = shmat(id, nullptr, 0);
  std::memcpy(address, bytes.data(), bytes.size());
  EXPECT_EQ(shmdt(address), 0);
  return id;
}

bool segment_exists(int id) {
  shmid_ds status{};
  return shmctl(id, IPC_STAT, &status) == 0;
}

std::string hexadecimal(int number) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "0x%x", static_cast<unsigned>(number));
  return text.data();
}

TEST_F(ScanRequest, ASegmentGivesTheVerdictOfAMessage) {
  service.answer_definition(R"([["HTML_SCRIPT", 1]])");
  set_text(request, "MIME-type", "text/html");
  for (const std::string bytes : {"<p>clean</p>", "<script>x()</script>", ""}) {
    set_text(request, "shmID", "0xffffffff");
    const std::string by_message = handle(bytes);
    const int id = make_segment(bytes);
    set_text(request, "shmID", hexadecimal(id));
    EXPECT_EQ(handle_as_is(nullptr, 0), by_message);
    EXPECT_FALSE(segment_exists(id));
  }
}

TEST_F(ScanRequest, SegmentTakesPrecedenceOverTheMessagesBytes) {
  service.answer_definition(R"([["CSV_INJECTION", 1]])");
  const std::string table = "a,=cmd|x\nb,=cmd|y\n";
  const int id = make_segment(table);
  set_text(request, "shmID", hexadecimal(id));
  const trace_capture trace;
  EXPECT_EQ(code(parse(handle(std::string(table.size(), 'x')))), -202);
  EXPECT_EQ(trace.count("Attaching shared memory segment ID: " + hexadecimal(id)), 1);
  EXPECT_EQ(trace.count("Shared memory segment attached"), 1);
  EXPECT_EQ(trace.count("Detaching shared memory"), 1);
  EXPECT_FALSE(segment_exists(id));
}

TEST_F(ScanRequest, ALengthBeyondTheSegmentIsAFailedScan) {
  for (const std::int64_t length : {std::int64_t{5}, std::int64_t{4097}, INT64_MAX}) {
    const int id = make_segment("four");
    set_text(request, "shmID", hexadecimal(id));
    set_number(request, "ObjectLen", length);
    EXPECT_EQ(handle_as_is(nullptr, 0), failed("Failed to attach shared memory segment")) << length;
    EXPECT_FALSE(segment_exists(id));
  }
}

json_object* answer_with_row(kv_amqp_config*, const char*, kv_const_request_reply_t* pair,
                             std::int32_t, std::int32_t, std::uint32_t, char*) {
  const kv_json_ptr request{json_tokener_parse(pair->request->json)};
  std::string name;
  static_cast<void>(kv_json_get_text(request.get(), "ObjectName", name));
  const std::string reply =
      R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"ReturnCode":0,"File-name":")" + name +
      R"(","MIME-type":"text/x-child"}]})";
  return json_tokener_parse(reply.c_str());
}

TEST_F(ScanRequest, RowsOfChildrenStandInTheReply) {
  service.answer_definition(R"([["HTML_SCRIPT", 1]])");
  service.state()->recursive_scan->ask = answer_with_row;
  set_text(request, "MIME-type", "text/html");
  set_text(request, "Services", "kv-av-first");
  for (const char* key :
       {"Hostname", "Scan-Servers", "XML_MODE", "SVG_MODE", "EVENT_ID_DELIMITER"}) {
    set_text(request, key, "x");
  }
  const std::string reply = handle("<p srcdoc='one'><img src='data:text/plain,two'>");
  EXPECT_EQ(code(parse(reply)), 0) << reply;
  EXPECT_NE(reply.find("\"in/report.bin/srcdoc-1\""), std::string::npos) << reply;
  EXPECT_NE(reply.find("\"in/report.bin/data-url-2\""), std::string::npos) << reply;
}

bool went_by_message = false;
json_object* note_the_way(kv_amqp_config*, const char*, kv_const_request_reply_t* pair,
                          std::int32_t, std::int32_t, std::uint32_t, char*) {
  went_by_message = pair->request->data != nullptr;
  return json_tokener_parse(R"({"ReturnCode":0})");
}

TEST_F(ScanRequest, ThreadsFlagDecidesHowChildrenTravel) {
  service.answer_definition(R"([["HTML_SCRIPT", 1]])");
  service.state()->recursive_scan->ask = note_the_way;
  set_text(request, "MIME-type", "text/html");
  set_text(request, "Services", "kv-av-first");
  for (const char* key :
       {"Hostname", "Scan-Servers", "XML_MODE", "SVG_MODE", "EVENT_ID_DELIMITER"}) {
    set_text(request, key, "x");
  }
  for (const bool by_segment : {true, false, true}) {
    service.local.flag = by_segment ? 1 : 0;
    went_by_message = by_segment;
    const std::string reply = handle("<p srcdoc='one'>");
    EXPECT_EQ(went_by_message, !by_segment) << reply;
  }
}

TEST_F(ScanRequest, WithoutASegmentNothingIsAttached) {
  const trace_capture trace;
  EXPECT_EQ(code(parse(handle("x"))), 0);
  EXPECT_EQ(trace.count("shared memory"), 0);
}

TEST_F(ScanRequest, LengthThatLiesIsAFailedScan) {
  const std::string bytes = "four";
  for (const std::int64_t length : {std::int64_t{5}, std::int64_t{3}, std::int64_t{-4},
                                    std::int64_t{0x1'0000'0004}, INT64_MAX}) {
    set_number(request, "ObjectLen", length);
    EXPECT_EQ(handle_as_is(bytes.data(), bytes.size()), failed("Data length inconsistency"))
        << length;
  }
}

TEST_F(ScanRequest, LengthWithoutBytesIsAnsweredByTheRowsThatNeedNone) {
  service.answer_definition(R"([["FLASH", 1]])");
  set_text(request, "File-type", "Macromedia Flash data");
  set_number(request, "ObjectLen", 1000);
  const kv_json_ptr reply = parse(handle_as_is(nullptr, 0));
  EXPECT_EQ(code(reply), -202);
  EXPECT_EQ(text(row(reply), "File-size"), "1000");
}

TEST_F(ScanRequest, NegativeLengthCountsAsZero) {
  set_number(request, "ObjectLen", -1);
  const kv_json_ptr reply = parse(handle_as_is(nullptr, 0));
  EXPECT_EQ(code(reply), 0);
  EXPECT_EQ(text(row(reply), "File-size"), "0");
}

// A script in markup, whose scan looks at the time before each tag.
class ScriptRequest : public ScanRequest {
 protected:
  void SetUp() override {
    service.answer_definition(R"([["HTML_SCRIPT", 1]])");
    set_text(request, "MIME-type", "text/html");
  }
  std::string scan() { return handle("<p>x</p><script>f()</script>"); }
};

TEST_F(ScriptRequest, TimeSpentBeforeTheDetectorsCounts) {
  const kv_ac_fetch answer = service.state()->fetch_definition;
  service.state()->fetch_definition = [&answer](kv_amqp_config* config, const char* name,
                                                const char* question, std::int32_t timeout_ms,
                                                std::uint32_t retries, char* error) {
    const std::uint64_t start = kv_current_time_ms();
    while (kv_elapsed_time_ms(start) < 20) {
      std::this_thread::yield();
    }
    return answer(config, name, question, timeout_ms, retries, error);
  };
  set_number(request, "SCANTIMEOUT", 10);
  EXPECT_EQ(scan(), failed("Service side timeout"));
}

TEST_F(ScriptRequest, NoPositiveTimeOutMeansNoLimit) {
  for (const std::int64_t timeout : {0, -1, INT32_MIN, 600'000}) {
    set_number(request, "SCANTIMEOUT", timeout);
    EXPECT_EQ(code(parse(scan())), -202) << timeout;
  }
  drop_key(request, "SCANTIMEOUT");
  EXPECT_EQ(code(parse(scan())), -202);
}

TEST_F(ScriptRequest, PolicyKeysChangeNoVerdict) {
  const std::string found = scan();
  for (const char* mode : {"OFF", "RESTRICTIVE", "SVG"}) {
    set_text(request, "HTMLDETECTION", mode);
    EXPECT_EQ(scan(), found) << mode;
  }
  for (const char* key : {"CUST_ACTIVE_CONTENT", "CUST_CHECK_MIME_TYPE", "SCANEXTRACT",
                          "SCANEXTRACT_DEPTH", "SCANEXTRACT_MAX_FILES", "SCANEXTRACT_SIZE",
                          "SCANEXTRACT_RATIO", "SCANEXTRACT_NO_VIRUSSCAN", "SCAN_MIN_SIZE",
                          "SCAN_MAX_SIZE", "SCANBANDWIDTH", "BLOCKHTML_IN_PDF", "Recursion"}) {
    for (const std::int64_t value : {0, 1, -1}) {
      set_number(request, key, value);
      EXPECT_EQ(scan(), found) << key << value;
    }
  }
  for (const char* key :
       {"BLOCKEXTENSIONS", "SCANEXTENSIONS", "BLOCKMIMETYPES", "SCANMIMETYPES", "Services"}) {
    set_text(request, key, "nothing");
    EXPECT_EQ(scan(), found) << key;
  }
  set_text(request, "BLOCKEXTENSIONS", "*");
  set_text(request, "MIME-type", "text/plain");
  EXPECT_EQ(code(parse(scan())), 0);
}

TEST_F(ScanRequest, ReplyIsLoggedAndEarlierTextReplaced) {
  const trace_capture trace;
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->reply->json = strdup("earlier");
  EXPECT_EQ(
      kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread),
      0);
  EXPECT_STRNE(pair->reply->json, "earlier");
  EXPECT_EQ(trace.count("DEBUG", "Created JSON text buffer: {"), 1);
  EXPECT_EQ(trace.count("TRACE", "kv_worker_handle_scan_request"), 2);  // Entering and Exiting
}

TEST_F(ScanRequest, ReasonThatIsNoUtf8GoesAsItIs) {
  service.answer_definition(R"([["FLASH", 1]])");
  set_text(request, "File-type", "Macromedia Flash \xe4\xff");
  EXPECT_NE(handle("x").find("\\\"Macromedia Flash \xe4\xff\\\" detected"), std::string::npos);
}

TEST_F(ScanRequest, RequestOfAnotherTypeHasNoTenant) {
  request.reset(json_object_new_array());
  EXPECT_EQ(handle_as_is(nullptr, 0), "{\"ReturnCode\": -1}");
}

TEST_F(ScanRequest, ManyThreadsScanAtOnce) {
  service.answer_definition(R"([["EXECUTABLE", 1]])");
  std::vector<std::thread> threads;
  std::atomic<int> blocked{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const kv_json_ptr own = make_scan_request();
      set_text(own, "Extension", ".bat");
      set_text(own, "SID", "S" + std::to_string(t % 2));
      for (int i = 0; i < 100; ++i) {
        const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
        EXPECT_EQ(
            kv_worker_handle_scan_request(&service.config, pair.get(), own.get(), &service.thread),
            0);
        blocked += std::strstr(pair->reply->json, "-202") != nullptr ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(blocked, 400);
}

}  // namespace
