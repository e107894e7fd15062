#include "worker/kv_worker_control.h"

#include "activecontent/kvactivecontent_service_internal.h"
#include "process_fixture.h"

namespace {

constexpr const char* kOk = "{\"ReturnCode\": 0}";
constexpr const char* kRefused = "{\"ReturnCode\": -1000}";

class worker_control : public process_fixture {
 protected:
  worker_control() {
    char error[KV_ERROR_TEXT_SIZE] = "";
    EXPECT_EQ(kv_worker_global_init(config.get(), shared.get(), error), 0);
  }
  ~worker_control() override { kv_service_state_free(&shared->service); }

  std::int32_t handle(const fake_job& job) {
    return kv_worker_control_request_handler(shared.get(), job.pair());
  }
  void store(const char* realm, const char* sid) {
    shared->service->definitions.add({realm, sid, std::make_shared<kv_ac_parameter_list>()});
  }
  [[nodiscard]] std::size_t stored() const { return shared->service->definitions.all().size(); }
  [[nodiscard]] std::int32_t update_state() const { return config->update_thread->update_state; }
};

TEST_F(worker_control, answers_a_ping) {
  const fake_job job("{\"Command\": 3}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(trace.count("TRACE", "Dispatching the message/task"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Got Control Job"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Commandcode: 3"), 1);
}

TEST_F(worker_control, text_that_is_no_json_is_refused_without_a_reply) {
  for (const char* text : {"", "{", "nonsense", "{\"Command\": 3", "[1,"}) {
    const fake_job job(text);
    EXPECT_EQ(handle(job), -1) << text;
    EXPECT_EQ(job.reply(), "");
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to parse JSON. Errorcode: "), 5);
  EXPECT_EQ(trace.count("Got Control Job"), 0);
}

TEST_F(worker_control, a_request_without_text_is_refused) {
  const fake_job job("");
  job.pair()->request->json = nullptr;
  EXPECT_EQ(handle(job), -1);
}

TEST_F(worker_control, unknown_commands_are_logged_and_not_answered) {
  const fake_job job("{\"Command\": 5}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), "");
  EXPECT_EQ(trace.count("WARN", "Unhandled Command Code 5 received"), 1);
}

TEST_F(worker_control, a_missing_command_counts_as_minus_one) {
  for (const char* text : {"{\"Secret\": \"x\"}", "null", "[]"}) {
    const fake_job job(text);
    EXPECT_EQ(handle(job), 0) << text;
    EXPECT_EQ(job.reply(), "") << text;
  }
  EXPECT_EQ(trace.count("WARN", "Object Command not found"), 3);
  EXPECT_EQ(trace.count("WARN", "Unhandled Command Code -1 received"), 3);
}

TEST_F(worker_control, shutdown_with_the_right_secret_ends_the_worker) {
  config->secret = strdup("given");
  const fake_job job("{\"Command\": 9, \"Secret\": \"given\"}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(killed, 1);
  EXPECT_EQ(trace.count("INFO", "SERVICE_SHUTDOWN request received"), 1);
}

TEST_F(worker_control, shutdown_with_another_secret_is_refused) {
  config->secret = strdup("given");
  for (const char* secret : {"other", "givem", "give", "given2", "GIVEN"}) {
    const fake_job job(std::string("{\"Command\": 9, \"Secret\": \"") + secret + "\"}");
    EXPECT_EQ(handle(job), 0) << secret;
    EXPECT_EQ(job.reply(), kRefused) << secret;
  }
  EXPECT_EQ(killed, 0);
  EXPECT_EQ(trace.count("WARN",
                        "secret mismatch (Local: \"given\" remote: \"other\") - not shutting "
                        "down"),
            1);
}

TEST_F(worker_control, shutdown_of_a_worker_without_a_secret_is_refused) {
  for (const char* secret : {"x", "(null)"}) {
    const fake_job job(std::string("{\"Command\": 9, \"Secret\": \"") + secret + "\"}");
    EXPECT_EQ(handle(job), 0);
    EXPECT_EQ(job.reply(), kRefused);
  }
  EXPECT_EQ(killed, 0);
}

TEST_F(worker_control, shutdown_needs_a_secret_in_the_job) {
  config->secret = strdup("given");
  const fake_job absent("{\"Command\": 9}");
  EXPECT_EQ(handle(absent), -1);
  EXPECT_EQ(absent.reply(), "");
  EXPECT_EQ(trace.count("ERROR", "Failed to read Secret from JSON"), 1);
  const fake_job empty("{\"Command\": 9, \"Secret\": \"\"}");
  EXPECT_EQ(handle(empty), -1);
  EXPECT_EQ(empty.reply(), "");
  EXPECT_EQ(trace.count("ERROR", "Key Secret found, but value is empty"), 1);
  EXPECT_EQ(killed, 0);
}

TEST_F(worker_control, ready_with_the_activation_secret_hands_over) {
  config->activation_secret = strdup("act");
  const fake_job job(
      "{ \"Command\" : 4 , \"Secret\":\"act\", \"Shutdown\":\"temp_h_2\", "
      "\"Shutdown-Secret\":\"own2\"}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(update_state(), KV_UPDATE_ACTIVATED);
  EXPECT_STREQ(config->update_thread->shutdown_target, "temp_h_2");
  EXPECT_STREQ(config->update_thread->shutdown_secret, "own2");
  EXPECT_EQ(killed, 0);
  EXPECT_EQ(trace.count("INFO", "SERVICE_READY message received"), 1);
  EXPECT_EQ(trace.count("INFO", "Temporary worker is ready. Completing update-restart"), 1);
}

TEST_F(worker_control, ready_with_another_secret_or_none_to_compare_is_refused) {
  const fake_job none("{\"Command\": 4, \"Secret\": \"act\", \"Shutdown\": \"t\"}");
  EXPECT_EQ(handle(none), 0);
  EXPECT_EQ(none.reply(), kRefused);
  EXPECT_EQ(trace.count("WARN", "secret mismatch (Local: \"\" remote: \"act\") "), 1);
  config->activation_secret = strdup("act");
  const fake_job other("{\"Command\": 4, \"Secret\": \"acT\", \"Shutdown\": \"t\"}");
  EXPECT_EQ(handle(other), 0);
  EXPECT_EQ(other.reply(), kRefused);
  EXPECT_EQ(trace.count("WARN", "secret mismatch (Local: \"act\" remote: \"acT\") "), 1);
  EXPECT_EQ(update_state(), KV_UPDATE_IDLE);
}

TEST_F(worker_control, ready_without_a_handover_stays_ok_and_changes_nothing) {
  config->activation_secret = strdup("act");
  struct row {
    const char* members;
    const char* line;
  };
  for (const row& r : {row{"", "Failed to read Shutdown from JSON"},
                       row{", \"Shutdown\":\"\"", "Key Shutdown found, but value is empty"},
                       row{", \"Shutdown\":\"t\"", "Failed to read Shutdown-Secret from JSON"},
                       row{", \"Shutdown\":\"t\", \"Shutdown-Secret\":\"\"",
                           "Key Shutdown-Secret found, but value is empty"}}) {
    const fake_job job(std::string("{\"Command\": 4, \"Secret\": \"act\"") + r.members + "}");
    EXPECT_EQ(handle(job), -1) << r.members;
    EXPECT_EQ(job.reply(), kOk) << r.members;
    EXPECT_EQ(trace.count("ERROR", r.line), 1) << r.line;
    EXPECT_EQ(update_state(), KV_UPDATE_IDLE);
    EXPECT_EQ(config->update_thread->shutdown_target, nullptr);
  }
}

TEST_F(worker_control, ready_needs_a_secret_in_the_job) {
  config->activation_secret = strdup("act");
  const fake_job job("{\"Command\": 4}");
  EXPECT_EQ(handle(job), -1);
  EXPECT_EQ(job.reply(), "");
  EXPECT_EQ(trace.count("ERROR", "Failed to read Secret from JSON"), 1);
}

TEST_F(worker_control, flush_takes_realm_and_sid_as_filters) {
  struct row {
    const char* members;
    std::size_t left;
  };
  for (const row& r :
       {row{", \"RealmID\":\"r1\", \"SID\":\"A\"", 3}, row{", \"RealmID\":\"r1\"", 2},
        row{", \"SID\":\"A\"", 2}, row{"", 0}, row{", \"RealmID\":\"\", \"SID\":\"\"", 0},
        row{", \"realmID\":\"r1\", \"SID\":\"A\"", 2}}) {
    kvactivecontent_free_definitions(shared->service, nullptr, nullptr, true);
    store("r1", "A");
    store("r1", "B");
    store("r2", "A");
    store("r2", "B");
    const fake_job job(std::string("{\"Command\": 10") + r.members + "}");
    EXPECT_EQ(handle(job), 0);
    EXPECT_EQ(job.reply(), kOk);
    EXPECT_EQ(stored(), r.left) << r.members;
  }
}

TEST_F(worker_control, flush_all_ignores_the_filters) {
  store("r1", "A");
  store("r2", "B");
  const fake_job job("{\"Command\": 12, \"RealmID\": \"r1\", \"SID\": \"A\"}");
  EXPECT_EQ(handle(job), 0);
  EXPECT_EQ(job.reply(), kOk);
  EXPECT_EQ(stored(), 0U);
  EXPECT_EQ(trace.count("DEBUG", "Flushing active content definitions"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Flushed active content definitions"), 1);
}

}  // namespace
