#include "worker/kv_worker_client_request.h"

#include "activecontent/kvactivecontent_service_internal.h"
#include "process_fixture.h"
#include "worker/kv_worker_threads.h"

namespace {

constexpr const char* kOk = "{\"ReturnCode\": 0}";
constexpr const char* kFailed = "{\"ReturnCode\": -1}";

// A scan request with every required key; more members may replace the object length.
std::string scan_request(const std::string& members) {
  return "{\"Command\": 101, \"ObjectName\": \"a.txt\", \"Services\": \"kv-av-activecontent\", "
         "\"shmID\": \"ffffffff\", \"realmID\": \"r\", \"SID\": \"S\", \"HTMLDETECTION\": \"ON\", "
         "\"MIME-type\": \"text/plain\"" +
         members + "}";
}

class client_request : public process_fixture {
 protected:
  client_request() : parameters(kv_worker_thread_parameters_new()) {
    char error[KV_ERROR_TEXT_SIZE] = "";
    EXPECT_EQ(kv_worker_global_init(config.get(), shared.get(), error), 0);
    parameters->shared = shared.get();
    fake_transport().answer = [this](const fake_request&) {
      status_while_scanning = parameters->current_status;
      return std::string("{\"Active-content-definition\": []}");
    };
  }
  ~client_request() override { kv_service_state_free(&shared->service); }

  std::int32_t handle(const fake_job& job) {
    return kv_worker_client_request_handler(parameters.get(), job.pair());
  }

  kv_worker_thread_parameters_ptr parameters;
  std::uint32_t status_while_scanning = 0;
};

TEST_F(client_request, a_missing_request_is_answered_minus_one_without_timing) {
  const fake_job job("");
  job.pair()->request->json = nullptr;
  EXPECT_EQ(handle(job), -1);
  EXPECT_EQ(job.reply(), kFailed);
  EXPECT_EQ(trace.count("ERROR", "Invalid request"), 1);
  EXPECT_EQ(trace.count("WARN", "Creating generic error reply"), 1);
  EXPECT_EQ(trace.count("Request handled in"), 0);
  EXPECT_EQ(trace.count("TRACE", "Exiting, rc=-1"), 1);
}

TEST_F(client_request, text_that_is_no_json_is_answered_minus_one) {
  int lines = 0;
  for (const char* text : {"", "{", "nope", "{\"Command\": 3", "\"", "[[[["}) {
    const fake_job job(text);
    EXPECT_EQ(handle(job), -1) << text;
    EXPECT_EQ(job.reply(), kFailed) << text;
    ++lines;
    EXPECT_EQ(trace.count("ERROR", "Failed to parse JSON. Errorcode: "), lines);
    EXPECT_EQ(trace.count("INFO", "Request handled in "), lines);
  }
}

TEST_F(client_request, deep_nesting_is_refused) {
  const fake_job job(std::string(100000, '['));
  EXPECT_EQ(handle(job), -1);
  EXPECT_EQ(job.reply(), kFailed);
}

TEST_F(client_request, the_raw_request_stands_in_the_trace) {
  const fake_job job("{\"Command\": 3}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(trace.count("TRACE", "request (raw): {\"Command\": 3}"), 1);
}

TEST_F(client_request, a_ping_is_answered_at_once_without_timing) {
  const fake_job job("{\"Command\": 3}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(trace.count("Request handled in"), 0);
  EXPECT_EQ(trace.count("generic error reply"), 0);
  EXPECT_EQ(parameters->current_status, KV_THREAD_STARTING);
}

TEST_F(client_request, a_missing_command_is_answered_zero) {
  for (const char* text : {"{}", "[]", "7", "\"text\"", "null", "{\"command\": 3}"}) {
    const fake_job job(text);
    EXPECT_EQ(handle(job), 0) << text;
    EXPECT_EQ(job.reply(), kOk) << text;
  }
  EXPECT_EQ(trace.count("WARN", "Object Command not found"), 6);
  EXPECT_EQ(trace.count("INFO", "Request handled in "), 6);
}

TEST_F(client_request, an_unknown_command_is_answered_zero) {
  for (const char* text : {"{\"Command\": 7}", "{\"Command\": -1}", "{\"Command\": null}",
                           "{\"Command\": {}}", "{\"Command\": 99999999999}"}) {
    const fake_job job(text);
    EXPECT_EQ(handle(job), 0) << text;
    EXPECT_EQ(job.reply(), kOk) << text;
  }
  EXPECT_EQ(trace.count("WARN", "Creating generic error reply"), 5);
}

TEST_F(client_request, service_initialisation_is_answered_by_the_service) {
  const fake_job job("{\"Command\": 1}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_NE(job.reply().find("\"DriverName\": \"Active content detection\""), std::string::npos)
      << job.reply();
  EXPECT_EQ(trace.count("INFO", "SERVICE_INITIALIZE request received"), 1);
  EXPECT_EQ(trace.count("INFO", "Request handled in "), 1);
  EXPECT_EQ(parameters->current_status, KV_THREAD_STARTING);
  EXPECT_EQ(parameters->thread_local_parameters->state, 2U);
}

TEST_F(client_request, a_length_that_lies_is_not_scanned) {
  struct row {
    const char* length;
    const char* line;
  };
  for (const row& r :
       {row{", \"ObjectLen\": 10",
            "ObjectLen (from request_json) is 10, scandatalen (from MQ) is 11"},
        row{", \"ObjectLen\": 12",
            "ObjectLen (from request_json) is 12, scandatalen (from MQ) is 11"},
        row{", \"ObjectLen\": -11",
            "ObjectLen (from request_json) is -11, scandatalen (from MQ) is 11"},
        row{", \"ObjectLen\": 4294967307",
            "ObjectLen (from request_json) is 4294967307, scandatalen (from MQ) is 11"}}) {
    const fake_job job(scan_request(std::string(", \"EventID\": \"e\"") + r.length), "hello world");
    EXPECT_EQ(handle(job), 0) << r.length;
    EXPECT_EQ(job.reply(), kOk) << r.length;
    EXPECT_EQ(trace.count("FATAL", r.line), 1) << r.line;
  }
  EXPECT_EQ(trace.count("FATAL", "Data length inconsistency"), 4);
  EXPECT_EQ(trace.count("INFO", "Request handled in "), 4);
  EXPECT_TRUE(fake_transport().requests.empty());
  EXPECT_EQ(parameters->current_status, KV_THREAD_STARTING);
}

TEST_F(client_request, an_absent_length_counts_as_zero) {
  const fake_job job(scan_request(", \"EventID\": \"e\""), "hello world");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(trace.count("WARN", "Object ObjectLen not found"), 1);
  EXPECT_EQ(trace.count("FATAL", "ObjectLen (from request_json) is 0, scandatalen (from MQ) is 11"),
            1);
}

TEST_F(client_request, without_data_no_length_is_compared) {
  const fake_job job(scan_request(", \"EventID\": \"e\", \"ObjectLen\": 10"));
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(trace.count("Data length inconsistency"), 0);
  EXPECT_EQ(trace.count("DEBUG", "Handling scan request for EventID e"), 1);
}

TEST_F(client_request, an_event_id_is_required) {
  const fake_job absent(scan_request(", \"ObjectLen\": 11"), "hello world");
  EXPECT_EQ(handle(absent), -1);
  EXPECT_EQ(absent.reply(), kFailed);
  EXPECT_EQ(trace.count("ERROR", "Failed to read EventID from JSON"), 1);
  const fake_job empty(scan_request(", \"ObjectLen\": 11, \"EventID\": \"\""), "hello world");
  EXPECT_EQ(handle(empty), -1);
  EXPECT_EQ(empty.reply(), kFailed);
  EXPECT_EQ(trace.count("ERROR", "Key EventID found, but value is empty"), 1);
  EXPECT_EQ(trace.count("INFO", "Request handled in "), 2);
  EXPECT_EQ(trace.count("TRACE", "Got 11 bytes data to scan at "), 2);
}

TEST_F(client_request, a_scan_is_answered_by_the_service_and_shows_as_busy) {
  for (const char* command : {"101", "102"}) {
    std::string text = scan_request(", \"ObjectLen\": 11, \"EventID\": \"event-1\"");
    text.replace(text.find("101"), 3, command);
    kvactivecontent_free_definitions(shared->service, nullptr, nullptr, true);
    const fake_job job(text, "hello world");
    EXPECT_EQ(handle(job), 0);
    EXPECT_NE(job.reply().find("\"ReturnCode\":"), std::string::npos) << job.reply();
    EXPECT_NE(job.reply().find("FilesScanned"), std::string::npos) << job.reply();
    EXPECT_EQ(status_while_scanning, KV_THREAD_BUSY);
    EXPECT_EQ(parameters->current_status, KV_THREAD_IDLE);
  }
  EXPECT_EQ(trace.count("INFO", "SCAN request received"), 2);
  EXPECT_EQ(trace.count("DEBUG", "Handling scan request for EventID event-1"), 2);
  EXPECT_EQ(trace.count("INFO", "Request handled successfully"), 2);
  EXPECT_EQ(trace.count("INFO", "Request handled in "), 2);
  EXPECT_EQ(trace.count("generic error reply"), 0);
}

TEST_F(client_request, a_command_given_as_text_is_converted) {
  const fake_job job("{\"Command\": \"3\"}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(trace.count("generic error reply"), 0);
}

}  // namespace
