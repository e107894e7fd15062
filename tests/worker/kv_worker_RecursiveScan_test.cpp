#include "worker/kv_worker_RecursiveScan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/kv_json.h"
#include "messaging/kv_shm.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kClean = R"({"ReturnCode": 0, "FilesScanned": 0, "Results": []})";

// The services of these tests: what they were asked, and what they answer.
struct services_double {
  struct question {
    std::string service;
    std::string json;
    std::string data;
    bool has_data;
    std::int32_t timeout_ms;
  };
  std::vector<question> asked;
  std::function<std::string(const question&)> answer = [](const question&) { return kClean; };

  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const question& q : asked) {
      names.push_back(q.service);
    }
    return names;
  }
};
services_double* current = nullptr;

json_object* ask(kv_amqp_config*, const char* service, kv_const_request_reply_t* pair,
                 std::int32_t timeout_ms, std::int32_t extra_time_ms, std::uint32_t retries,
                 char* error_text) {
  EXPECT_EQ(extra_time_ms, 0);
  EXPECT_EQ(retries, 0u);
  const kv_const_message_t& request = *pair->request;
  current->asked.push_back({service, request.json,
                            std::string(static_cast<const char*>(request.data),
                                        request.data == nullptr ? 0 : request.data_size),
                            request.data != nullptr, timeout_ms});
  const std::string reply = current->answer(current->asked.back());
  if (reply.starts_with("!")) {
    std::snprintf(error_text, KV_ERROR_TEXT_SIZE, "%s", reply.c_str() + 1);
    return nullptr;
  }
  return json_tokener_parse(reply.c_str());
}

kv_json_ptr scan_request(const std::string& services) {
  kv_json_ptr request{json_tokener_parse(R"({
    "Command": 101, "realmID": "r", "SID": "s", "Hostname": "h", "EventID": "e",
    "Scan-Servers": "x", "HTMLDETECTION": "ON", "XML_MODE": "xm", "SVG_MODE": "sm",
    "EVENT_ID_DELIMITER": ":", "SCANEXTRACT_RATIO": 1032, "BLOCKMIMETYPES": "a/b"})")};
  json_object_object_add(request.get(), "Services", json_object_new_string(services.c_str()));
  return request;
}

std::string member_text(const std::string& json, const char* key) {
  const kv_json_ptr object{json_tokener_parse(json.c_str())};
  std::string text;
  return kv_json_get_text(object.get(), key, text) == kv_json_presence::present ? text : "<none>";
}

class recursive_scan : public testing::Test {
 protected:
  void SetUp() override {
    current = &services_;
    job_->extract_depth = 20;
  }

  std::int32_t scan(const std::string& services, std::int64_t time_left_ms = KV_NO_TIME_LIMIT,
                    bool use_shared_memory = false) {
    request_ = scan_request(services);
    job_->request = request_.get();
    reason_ = {};
    error_ = {};
    return kvworker_RecursiveScan(args(time_left_ms, use_shared_memory));
  }
  kv_recursive_scan_args_t args(std::int64_t time_left_ms, bool use_shared_memory) {
    return {.process = &process_,
            .consolidated = result_.get(),
            .job = job_.get(),
            .data = data_.data(),
            .length = data_.size(),
            .name = "page/data-url-1",
            .time_left_ms = time_left_ms,
            .recursion = recursion_,
            .use_shared_memory = use_shared_memory,
            .reason = reason_.data(),
            .error = error_.data(),
            .result = 0};
  }
  void answer(const std::string& reply) {
    services_.answer = [reply](const auto&) { return reply; };
  }

  services_double services_;
  kv_recursive_scan_t process_{nullptr, nullptr, ask};
  kv_scanobject_ptr job_{kv_worker_new_scanobject()};
  kv_scan_result_ptr result_{kv_worker_new_scan_result()};
  kv_json_ptr request_;
  std::string data_ = "the object";
  std::int32_t recursion_ = 3;
  std::array<char, KV_ERROR_TEXT_SIZE> reason_{};
  std::array<char, KV_ERROR_TEXT_SIZE> error_{};
};

std::vector<std::string> tokens(const char* services) {
  const kv_services_ptr list{s_tokenize_services(services)};
  std::vector<std::string> names;
  for (std::size_t i = 0; list[i] != nullptr; ++i) {
    names.emplace_back(list[i]);
  }
  return names;
}

}  // namespace

TEST(services_list, SkipsEmptyTokensAndServicesThatOnlyPassOn) {
  EXPECT_THAT(tokens("a;;b;kv-av-cloudscan"), ElementsAre("a", "b"));
  EXPECT_THAT(tokens("KV-AV-CloudScan;x;Kv-Av-ScanProxy"), ElementsAre("x"));
  EXPECT_THAT(tokens(";;;"), IsEmpty());
  EXPECT_THAT(tokens(""), IsEmpty());
  EXPECT_THAT(tokens("one"), ElementsAre("one"));
  EXPECT_THAT(tokens("p+s;q+"), ElementsAre("p+s", "q+"));
}

TEST(services_list, IsLogged) {
  const trace_capture trace;
  static_cast<void>(tokens("a;;kv-av-cloudscan"));
  EXPECT_EQ(trace.count("DEBUG", "tokenizing a;;kv-av-cloudscan"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Identified 3 services"), 1);
  EXPECT_EQ(trace.count("DEBUG", "token #0: a"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Skipping kv-av-cloudscan"), 1);
}

TEST_F(recursive_scan, WithoutServicesTheObjectIsClean) {
  EXPECT_EQ(scan("kv-av-cloudscan"), 0);
  EXPECT_EQ(scan("KV-AV-ScanProxy;;"), 0);
  EXPECT_THAT(services_.asked, IsEmpty());
}

TEST_F(recursive_scan, ServicesAreAskedInOrderWithTheObjectInTheMessage) {
  EXPECT_EQ(scan("first;second"), 0);
  EXPECT_THAT(services_.names(), ElementsAre("first", "second"));
  EXPECT_EQ(services_.asked[0].data, "the object");
  EXPECT_EQ(member_text(services_.asked[0].json, "shmID"), "0xffffffff");
}

TEST_F(recursive_scan, TheRequestHasItsKeysInOrder) {
  EXPECT_EQ(scan("first"), 0);
  const kv_json_ptr request{json_tokener_parse(services_.asked.at(0).json.c_str())};
  std::vector<std::string> keys;
  json_object_object_foreach(request.get(), key, value) {
    static_cast<void>(value);
    keys.emplace_back(key);
  }
  EXPECT_THAT(
      keys,
      ElementsAre("Command", "realmID", "SID", "Hostname", "EventID", "Services", "Scan-Servers",
                  "Recursion", "shmID", "ObjectName", "ObjectLen", "SCANALLEMBEDDED", "SCANTIMEOUT",
                  "SCANBANDWIDTH", "ENFORCE_MIME_POLICY_IN_ARCHIVES",
                  "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", "CUST_CHECK_MIME_TYPE",
                  "ENFORCE_MIME_EXTENSION_MATCH", "CUST_ACTIVE_CONTENT", "CUST_CLEAN",
                  "SCANMIMETYPES", "BLOCKMIMETYPES", "SCANEXTENSIONS", "BLOCKEXTENSIONS",
                  "BLOCKENCRYPTED", "BLOCKHTML_IN_PDF", "SCANBASE64", "SCANUUENCODED",
                  "SCANXMLCONTENT", "HTMLDETECTION", "XML_MODE", "SVG_MODE", "LONGMIMETYPES",
                  "CLEANQUARANTINE", "INCLUDE_EVENT_ID_IN_MESSAGE", "EVENT_ID_DELIMITER",
                  "SCANBESTEFFORT", "SCANALLFILES", "SCANEXTRACT", "SCANEXTRACT_DEPTH",
                  "SCANEXTRACT_MAX_FILES", "SCANEXTRACT_SIZE", "SCANEXTRACT_RATIO",
                  "SCANEXTRACT_NO_VIRUSSCAN", "SCAN_MIN_SIZE", "SCAN_MAX_SIZE"));
  const std::string& json = services_.asked[0].json;
  EXPECT_EQ(member_text(json, "Recursion"), "4");
  EXPECT_EQ(member_text(json, "ObjectName"), "page/data-url-1");
  EXPECT_EQ(member_text(json, "ObjectLen"), "10");
  EXPECT_EQ(member_text(json, "Command"), "101");
  EXPECT_EQ(member_text(json, "SCANEXTRACT_RATIO"), "1032");
  EXPECT_EQ(member_text(json, "BLOCKMIMETYPES"), "a/b");
  EXPECT_THAT(json, HasSubstr("\"SCANMIMETYPES\":\"\""));
  EXPECT_THAT(json, HasSubstr("{\n  \"Command\":101,\n")) << "printed prettily";
}

TEST_F(recursive_scan, TheExtensionLengthIsWrittenOnlyWhenTheJobHasIt) {
  request_ = scan_request("first");
  json_object_object_add(request_.get(), "SCAN_EXTENSION_MAX_LEN", json_object_new_int(7));
  job_->request = request_.get();
  EXPECT_EQ(kvworker_RecursiveScan(args(KV_NO_TIME_LIMIT, false)), 0);
  EXPECT_EQ(member_text(services_.asked.at(0).json, "SCAN_EXTENSION_MAX_LEN"), "7");
}

TEST_F(recursive_scan, ARequestThatLacksARequiredTextIsNotBuilt) {
  for (const char* key : {"realmID", "SID", "Hostname", "EventID", "Scan-Servers", "HTMLDETECTION",
                          "XML_MODE", "SVG_MODE", "EVENT_ID_DELIMITER"}) {
    for (const bool empty : {false, true}) {
      request_ = scan_request("first");
      json_object_object_del(request_.get(), key);
      if (empty) {
        json_object_object_add(request_.get(), key, json_object_new_string(""));
      }
      job_->request = request_.get();
      const trace_capture trace;
      EXPECT_EQ(kvworker_RecursiveScan(args(KV_NO_TIME_LIMIT, false)), -1000) << key;
      const std::string text = empty ? std::string("Key ") + key + " found, but value is empty"
                                     : std::string("Failed to read ") + key + " from JSON";
      EXPECT_EQ(error_.data(), text);
      EXPECT_EQ(trace.count("ERROR", text), 1) << key;
      EXPECT_EQ(trace.count("ERROR", "Failed to allocate recursion scanjob JSON"), 1) << key;
    }
  }
  EXPECT_THAT(services_.asked, IsEmpty());
}

TEST_F(recursive_scan, MissingServicesFailTheScan) {
  request_ = scan_request("x");
  json_object_object_del(request_.get(), "Services");
  job_->request = request_.get();
  EXPECT_EQ(kvworker_RecursiveScan(args(KV_NO_TIME_LIMIT, false)), -1000);
  EXPECT_STREQ(error_.data(), "Failed to read Services from JSON");
  EXPECT_EQ(scan(""), -1000);
  EXPECT_STREQ(error_.data(), "Key Services found, but value is empty");
}

TEST_F(recursive_scan, TheDepthLimitAnswersWithoutARequest) {
  const trace_capture trace;
  job_->extract_depth = 3;
  EXPECT_EQ(scan("first"), -200);
  EXPECT_THAT(services_.asked, IsEmpty());
  EXPECT_STREQ(result_->error, "Maximum extraction depth reached");
  EXPECT_EQ(result_->return_code, -200);
  EXPECT_STREQ(reason_.data(), "Maximum extraction depth reached");
  EXPECT_EQ(trace.count("Returning -200"), 1);
  job_->extract_depth = 4;
  EXPECT_EQ(scan("first"), 0);
}

TEST_F(recursive_scan, NoDataIsRecordedAsARowOfItsOwn) {
  data_.clear();
  const trace_capture trace;
  EXPECT_EQ(scan("first"), -1000);
  EXPECT_EQ(trace.count("INFO", "No data to scan"), 1);
  ASSERT_EQ(result_->file_count, 1);
  EXPECT_STREQ(result_->files[0]->file_name, "page/data-url-1");
  EXPECT_EQ(result_->files[0]->return_code, -1000);
}

TEST_F(recursive_scan, ALengthWithoutDataIsAnError) {
  const trace_capture trace;
  request_ = scan_request("first");
  job_->request = request_.get();
  kv_recursive_scan_args_t broken = args(KV_NO_TIME_LIMIT, false);
  broken.data = nullptr;
  EXPECT_EQ(kvworker_RecursiveScan(broken), -1000);
  EXPECT_EQ(trace.count("ERROR", "Data is NULL, but length is 10"), 1);
}

TEST_F(recursive_scan, ReplyCodesAreTakenOver) {
  struct row {
    int reply;
    int taken;
    const char* reason;
    const char* error;
  };
  for (const auto& [reply, taken, reason, error] : {
           row{0, 0, "", ""},
           row{-100, -100, "why", "why"},
           row{-101, -100, "why", "why"},
           row{-198, -100, "why", "why"},
           row{-199, -199, "why", ""},
           row{-200, -200, "why", ""},
           row{-202, -202, "why", ""},
           row{-1000, -1000, "", "broken"},
           row{-1, -1000, "", "Invalid reply code -1 received from service first"},
           row{-99, -1000, "", "Invalid reply code -99 received from service first"},
           row{5, -1000, "", "Invalid reply code 5 received from service first"},
       }) {
    answer("{\"ReturnCode\": " + std::to_string(reply) +
           ", \"Blocking-reason\": \"why\", \"Error\": \"broken\"}");
    const trace_capture trace;
    EXPECT_EQ(scan("first;second"), taken) << reply;
    EXPECT_STREQ(reason_.data(), reason) << reply;
    EXPECT_STREQ(error_.data(), error) << reply;
    const bool invalid = taken == -1000 && reply != -1000;
    EXPECT_EQ(trace.count("ERROR", "Received invalid replycode: " + std::to_string(reply)),
              invalid ? 1 : 0);
    EXPECT_EQ(trace.count("ERROR", "Invalid reply code " + std::to_string(reply)), invalid ? 1 : 0);
  }
}

TEST_F(recursive_scan, ANonZeroCodeEndsTheChain) {
  answer(R"({"ReturnCode": -202, "Blocking-reason": "bad"})");
  EXPECT_EQ(scan("first;second"), -202);
  EXPECT_THAT(services_.names(), ElementsAre("first"));
}

TEST_F(recursive_scan, AMissingReasonGetsAGenericText) {
  const trace_capture trace;
  answer(R"({"ReturnCode": -200})");
  EXPECT_EQ(scan("first"), -200);
  EXPECT_STREQ(reason_.data(), "Policy Violation");
  answer(R"({"ReturnCode": -100, "Blocking-reason": ""})");
  EXPECT_EQ(scan("first"), -100);
  EXPECT_STREQ(reason_.data(), "Scan could not be completed");
  EXPECT_EQ(trace.count("Could not get blocking reason - returning generic message"), 2);
  EXPECT_EQ(trace.count("Scan not completed: Scan could not be completed"), 1);
}

TEST_F(recursive_scan, NoReplyFailsTheScan) {
  answer("!");
  EXPECT_EQ(scan("first;second"), -1000);
  EXPECT_STREQ(error_.data(), "Failed to get reply from service first");
  EXPECT_STREQ(result_->error, "Failed to get reply from service first");
  answer("!Timeout");
  EXPECT_EQ(scan("first"), -1000);
  EXPECT_STREQ(error_.data(), "Timeout") << "the transport's own text is kept";
}

TEST_F(recursive_scan, AReplyWithoutACodeIsNeverClean) {
  const trace_capture trace;
  answer("{}");
  EXPECT_EQ(scan("first"), -1000);
  EXPECT_EQ(trace.count("WARN", "Object ReturnCode not found"), 1);
  for (const char* code : {"null", "\"0\"", "\"clean\"", "false", "0.4", "[]", "{}"}) {
    answer(std::string("{\"ReturnCode\": ") + code + "}");
    EXPECT_EQ(scan("first"), -1000) << code;
  }
}

TEST_F(recursive_scan, RowsAreMergedAndNamedBelowTheObject) {
  answer(R"({"ReturnCode": -202, "Blocking-reason": "bad", "FilesScanned": 4, "Results": [
    {"ReturnCode": 0, "File-name": "page/data-url-1", "File-size": 10, "MIME-type": "text/html",
     "MIME-encoding": "utf-8", "File-type": "HTML", "Extension": ".html", "Object-type": 2,
     "Virusname": " "},
    {"ReturnCode": -202, "File-name": "page/data-url-1/inner", "Virusname": "script"},
    {"ReturnCode": 0, "File-name": "elsewhere"},
    {"ReturnCode": 0, "File-name": "", "Blocking-reason": "own"}]})");
  EXPECT_EQ(scan("first"), -202);
  ASSERT_EQ(result_->file_count, 4);
  const kv_file_scan_result_t& own = *result_->files[0];
  EXPECT_STREQ(own.file_name, "page/data-url-1");
  EXPECT_EQ(own.file_size, 10u);
  EXPECT_STREQ(own.mime_type, "text/html");
  EXPECT_STREQ(own.mime_encoding, "utf-8");
  EXPECT_STREQ(own.file_type, "HTML");
  EXPECT_STREQ(own.extension, ".html");
  EXPECT_EQ(own.object_type, 2);
  EXPECT_STREQ(own.blocking_reason, "") << "a blank stands for no reason";
  EXPECT_STREQ(result_->files[1]->file_name, "page/data-url-1/inner");
  EXPECT_STREQ(result_->files[1]->blocking_reason, "script");
  EXPECT_STREQ(result_->files[2]->file_name, "page/data-url-1/elsewhere");
  EXPECT_STREQ(result_->files[3]->file_name, "page/data-url-1/");
  EXPECT_STREQ(result_->files[3]->blocking_reason, "own");
}

TEST_F(recursive_scan, ResultsOfSeveralServicesAreMergedFieldByField) {
  services_.answer = [](const services_double::question& q) {
    return q.service == "first"
               ? R"({"ReturnCode":0,"Results":[{"ReturnCode":0,"File-name":"page/data-url-1"}]})"
               : R"({"ReturnCode":0,"Results":[{"ReturnCode":0,"File-name":"page/data-url-1",
                   "MIME-type":"a/b"}]})";
  };
  EXPECT_EQ(scan("first;second"), 0);
  ASSERT_EQ(result_->file_count, 1);
  EXPECT_STREQ(result_->files[0]->mime_type, "a/b");
}

TEST_F(recursive_scan, RubbishInTheRowsIsSurvived) {
  for (const char* reply :
       {R"({"ReturnCode":0,"Results":5})", R"({"ReturnCode":0,"Results":[5,null,[],{}]})",
        R"({"ReturnCode":0,"Results":[{"File-name":{"a":1},"File-size":-7}]})"}) {
    answer(reply);
    EXPECT_EQ(scan("first"), 0) << reply;
  }
  answer("5");
  EXPECT_EQ(scan("first"), -1000);
}

TEST_F(recursive_scan, TheMimescanAnswerTravelsOn) {
  services_.answer = [](const services_double::question& q) -> std::string {
    return q.service != "kv-av-mimescan" ? kClean : R"({"ReturnCode":0,"Results":[
      {"ReturnCode":0,"File-name":"page/data-url-1","MIME-type":"text/html",
       "MIME-encoding":"us-ascii","File-type":"HTML document","Extension":".html",
       "Object-type":9}]})";
  };
  EXPECT_EQ(scan("before;kv-av-mimescan;after"), 0);
  EXPECT_EQ(member_text(services_.asked.at(0).json, "MIME-type"), "<none>");
  const std::string& json = services_.asked.at(2).json;
  EXPECT_EQ(member_text(json, "MIME-type"), "text/html");
  EXPECT_EQ(member_text(json, "MIME-encoding"), "us-ascii");
  EXPECT_EQ(member_text(json, "File-type"), "HTML document");
  EXPECT_EQ(member_text(json, "Extension"), ".html");
  EXPECT_EQ(member_text(json, "Object-type"), "9");
}

TEST_F(recursive_scan, OnlyTheMimescansOwnAnswerTravelsOn) {
  struct row {
    const char* services;
    int mimescan;  // its code
    const char* mime_type;
  };
  for (const auto& [services, mimescan, mime_type] : {
           row{"kv-av-mimescan+;after", 0, "text/html"},
           row{"kv-av-mimescan+other;after", 0, "text/html"},
           row{"kv-av-mimescan+;after", -100, "<none>"},
           row{"kv-av-mimescan+other;after", -100, "<none>"},
           row{"other;after", 0, "<none>"},
       }) {
    services_.asked.clear();
    services_.answer = [code = mimescan](const services_double::question& q) {
      return "{\"ReturnCode\":" + std::to_string(q.service == "kv-av-mimescan" ? code : 0) +
             R"(,"Results":[{"ReturnCode":0,"File-name":"x","MIME-type":"text/html"}]})";
    };
    EXPECT_EQ(scan(services), 0) << services;
    EXPECT_EQ(services_.asked.back().service, "after");
    EXPECT_EQ(member_text(services_.asked.back().json, "MIME-type"), mime_type) << services;
  }
}

TEST_F(recursive_scan, APlusAloneLetsTheNextServiceGoOn) {
  services_.answer = [](const services_double::question& q) -> std::string {
    return q.service == "first"
               ? R"({"ReturnCode":-100,"Results":[{"ReturnCode":-100,"File-name":"x"}]})"
               : kClean;
  };
  EXPECT_EQ(scan("first+;second"), 0);
  EXPECT_THAT(services_.names(), ElementsAre("first", "second"));
  EXPECT_EQ(result_->file_count, 0) << "rows of the overridden answer must not block";
}

TEST_F(recursive_scan, APlusWithANameAsksTheFallback) {
  const trace_capture trace;
  services_.answer = [](const services_double::question& q) -> std::string {
    return q.service == "first" ? R"({"ReturnCode":-100,"Blocking-reason":"busy"})"
                                : R"({"ReturnCode":-202,"Blocking-reason":"bad"})";
  };
  EXPECT_EQ(scan("first+second;third"), -202);
  EXPECT_THAT(services_.names(), ElementsAre("first", "kv-av-second"));
  EXPECT_STREQ(reason_.data(), "bad");
  EXPECT_EQ(trace.count("Service first did not complete the scan because busy , but '+' overrides "
                        "the result'"),
            1);
}

TEST_F(recursive_scan, APlusDoesNotOverrideOtherCodes) {
  answer(R"({"ReturnCode":-202,"Blocking-reason":"bad"})");
  EXPECT_EQ(scan("first+second"), -202);
  EXPECT_THAT(services_.names(), ElementsAre("first"));
}

TEST_F(recursive_scan, ASpentBudgetEndsTheChain) {
  services_.answer = [](const services_double::question&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    return kClean;
  };
  EXPECT_EQ(scan("first;second", 20), -1000);
  EXPECT_THAT(services_.names(), ElementsAre("first"));
  EXPECT_LE(services_.asked[0].timeout_ms, 20);
  EXPECT_STREQ(error_.data(), "Service side timeout");
  EXPECT_EQ(scan("first", 0), -1000);
}

TEST_F(recursive_scan, ASpentBudgetAsksNoFallback) {
  services_.answer = [](const services_double::question&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    return R"({"ReturnCode":-100,"Blocking-reason":"busy"})";
  };
  EXPECT_EQ(scan("first+second", 20), -1000);
  EXPECT_THAT(services_.names(), ElementsAre("first"));
  EXPECT_STREQ(error_.data(), "Service side timeout");
}

// Resident memory of this process in bytes.
std::int64_t resident_bytes() {
  std::int64_t total = 0;
  std::int64_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

TEST_F(recursive_scan, MemoryStaysFlatOverManyChildren) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int kJobs = 5;  // freed memory is kept back there: the leak check tells instead
  constexpr std::int64_t kAllowed = std::int64_t{1} << 30;
#else
  constexpr int kJobs = 100;
  constexpr std::int64_t kAllowed = std::int64_t{8} << 20;
#endif
  constexpr int kChildren = 1000;  // of each job
  services_.answer = [this](const auto&) {
    services_.asked.clear();
    return R"({"ReturnCode":0,"Results":[{"ReturnCode":0,"File-name":"inner.txt"}]})";
  };
  const auto run_job = [&] {
    result_.reset(kv_worker_new_scan_result());
    for (int child = 0; child < kChildren; ++child) {
      EXPECT_EQ(scan("first"), 0);
    }
  };
  for (int job = 0; job < 5; ++job) {
    run_job();
  }
  const std::int64_t before = resident_bytes();
  for (int job = 0; job < kJobs; ++job) {
    run_job();
  }
  EXPECT_LT(resident_bytes() - before, kAllowed);
}

TEST_F(recursive_scan, WithoutABudgetARequestWaitsTwoMinutes) {
  EXPECT_EQ(scan("first"), 0);
  EXPECT_EQ(services_.asked.at(0).timeout_ms, 120000);
}

TEST_F(recursive_scan, SharedMemoryCarriesTheObjectAndIsGoneAfterwards) {
  int id = -1;
  services_.answer = [&id](const services_double::question& q) -> std::string {
    EXPECT_FALSE(q.has_data);
    id = static_cast<int>(std::stoul(member_text(q.json, "shmID"), nullptr, 16));
    kv_shm_segment segment;
    EXPECT_TRUE(segment.attach(id, 10, "service"));
    EXPECT_EQ(std::string(segment.bytes().begin(), segment.bytes().end()), "the object");
    return kClean;
  };
  EXPECT_EQ(scan("first;second", KV_NO_TIME_LIMIT, true), 0);
  EXPECT_EQ(services_.asked.size(), 2u) << "a service's detach must not take it from the next";
  shmid_ds status{};
  EXPECT_NE(shmctl(id, IPC_STAT, &status), 0);
}

TEST_F(recursive_scan, NoSegmentIsLeftWhenTheHandOverFails) {
  request_ = scan_request("first");
  json_object_object_del(request_.get(), "SVG_MODE");
  job_->request = request_.get();
  const trace_capture trace;
  EXPECT_EQ(kvworker_RecursiveScan(args(KV_NO_TIME_LIMIT, true)), -1000);
  EXPECT_EQ(trace.count("Created shared memory segment ID"), 1);
  EXPECT_EQ(trace.count("detaching shared memory segment ID"), 1);
}

TEST_F(recursive_scan, TheThreadVariantHoldsAndReleasesASlot) {
  const kv_recursive_scan_ptr process{kv_recursive_scan_new(nullptr, 1)};
  ASSERT_TRUE(process && process->slots != nullptr);
  process->ask = ask;
  request_ = scan_request("first");
  job_->request = request_.get();
  kv_recursive_scan_args_t scan_args = args(KV_NO_TIME_LIMIT, false);
  scan_args.process = process.get();
  scan_args.result = 77;
  int free_slots = -1;
  services_.answer = [&](const services_double::question&) {
    sem_getvalue(process->slots, &free_slots);
    return kClean;
  };
  const trace_capture trace;
  std::thread(kvworker_RecursiveScan_thread, &scan_args).join();
  EXPECT_EQ(scan_args.result, 0);
  EXPECT_EQ(free_slots, 0);
  sem_getvalue(process->slots, &free_slots);
  EXPECT_EQ(free_slots, 1);
  EXPECT_EQ(trace.count("Released semaphore slot for recursive scan"), 1);
}

TEST_F(recursive_scan, WithoutAFreeSlotTheBudgetRunsOut) {
  const kv_recursive_scan_ptr process{kv_recursive_scan_new(nullptr, 1)};
  ASSERT_TRUE(process && process->slots != nullptr);
  ASSERT_EQ(sem_wait(process->slots), 0);
  process->ask = ask;
  request_ = scan_request("first");
  job_->request = request_.get();
  kv_recursive_scan_args_t scan_args = args(100, false);
  scan_args.process = process.get();
  kvworker_RecursiveScan_thread(&scan_args);
  EXPECT_EQ(scan_args.result, -1000);
  EXPECT_STREQ(error_.data(), "Service side timeout");
  EXPECT_THAT(services_.asked, IsEmpty());
}

TEST(latest_dir, FollowsTheNumberOrTheDefault) {
  const temp_dir folder;
  std::array<char, KV_LATEST_DIR_SIZE> out{};
  const auto latest = [&] {
    EXPECT_EQ(kvworker_getLatestDir(folder.path().c_str(), out.data()), 0);
    return std::string(out.data());
  };
  EXPECT_EQ(latest(), folder.file("default"));
  for (const auto& [text, expected] : {std::pair{"1700000000\n", "1700000000"},
                                       {"0", "default"},
                                       {"-4", "default"},
                                       {"abc", "default"}}) {
    std::ofstream(folder.file("latest.tms")) << text;
    EXPECT_EQ(latest(), folder.file(expected)) << text;
  }
}
