#include "worker/kv_worker_registration.h"

#include <csignal>

#include "process_fixture.h"
#include "worker/kv_worker_signals.h"

namespace {

using namespace std::chrono_literals;

class registration : public process_fixture {
 protected:
  const kv_worker_identity_t identity{"w_h_1", "own-secret"};
  std::string error_text;
};

TEST_F(registration, waits_in_series_of_six_pings) {
  int pings = 0;
  fake_transport().answer = [&](const fake_request&) {
    // Each ping of the worker has three tries.
    return ++pings <= 3 * 6 + 3 ? "" : "{}";
  };
  kv_worker_wait_for_control(config->amqp, 1ms);
  EXPECT_EQ(pings, 3 * 7 + 1);
  EXPECT_EQ(trace.count("DEBUG", "Waiting for service kv-av-worker-control on broker.example:5671"),
            1);
  EXPECT_EQ(
      trace.count("WARN", "Still waiting for service kv-av-worker-control to become available"), 1);
  for (const fake_request& request : fake_transport().requests) {
    EXPECT_EQ(request.service, "kv-av-worker-control");
    EXPECT_EQ(request.timeout_ms, 2000);
    EXPECT_EQ(request.retries, 0U);
    EXPECT_FALSE(request.ends_with_the_process);
  }
}

TEST_F(registration, an_answer_at_once_takes_no_pause) {
  kv_worker_wait_for_control(config->amqp, 1h);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
}

TEST_F(registration, the_wait_is_not_ended_by_a_signal_but_reports_it) {
  ASSERT_EQ(kv_worker_install_signals(), 0);
  int pings = 0;
  fake_transport().answer = [&](const fake_request&) {
    if (++pings == 2) {
      raise(SIGTERM);
    }
    return pings < 30 ? "" : "{}";
  };
  kv_worker_wait_for_control(config->amqp, 1ms);
  std::signal(SIGTERM, SIG_DFL);
  EXPECT_EQ(pings, 30);
  EXPECT_EQ(killed, 1);
  EXPECT_EQ(trace.count("DEBUG", "Signal 15 handled"), 1);
}

TEST_F(registration, registers_until_the_control_service_answers) {
  int tries = 0;
  fake_transport().answer = [&](const fake_request&) { return ++tries < 3 ? "" : "{\"x\": 1}"; };
  kv_worker_register(*config, identity, kv_registration::first, error_text);
  EXPECT_EQ(tries, 3);
  EXPECT_EQ(error_text, "Active content detection: Failed to register worker with control");
  EXPECT_EQ(
      trace.count("ERROR",
                  "Active content detection: Failed to register worker with control - retrying"),
      2);
  const fake_request& request = fake_transport().requests.front();
  EXPECT_EQ(request.service, "kv-av-worker-control");
  EXPECT_EQ(request.text, kv_register_text(kv_registration::first, "w_h_1", 0, "own-secret"));
  EXPECT_EQ(request.timeout_ms, 5000);
  EXPECT_EQ(request.retries, 3U);
  EXPECT_TRUE(request.ends_with_the_process);
}

TEST_F(registration, any_return_code_is_success) {
  fake_transport().answer = [](const fake_request&) { return "{\"ReturnCode\": -1000}"; };
  kv_worker_register(*config, identity, kv_registration::first, error_text);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
  EXPECT_EQ(error_text, "");
}

TEST_F(registration, a_repetition_has_a_text_and_a_failure_line_of_its_own) {
  config->primary = 1;
  int tries = 0;
  fake_transport().answer = [&](const fake_request&) { return ++tries < 2 ? "" : "{}"; };
  kv_worker_register(*config, identity, kv_registration::repeated, error_text);
  EXPECT_EQ(fake_transport().requests.front().text,
            kv_register_text(kv_registration::repeated, "w_h_1", 1, "own-secret"));
  EXPECT_EQ(
      trace.count("ERROR",
                  "Active content detection: Failed to re-register worker with control - retrying"),
      1);
  EXPECT_EQ(error_text, "Active content detection: Failed to register worker with control");
}

TEST_F(registration, the_end_of_the_process_ends_it) {
  fake_transport().answer = [](const fake_request&) {
    killed = 1;
    return "";
  };
  kv_worker_register(*config, identity, kv_registration::first, error_text);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
  kv_worker_register(*config, identity, kv_registration::repeated, error_text);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
  EXPECT_EQ(error_text, "");  // given up, not failed
}

TEST_F(registration, ready_needs_return_code_zero) {
  config->signal_when_ready = strdup("launcher_h_9");
  config->secret = strdup("given");
  EXPECT_EQ(kv_worker_send_ready(*config, identity), 0);
  EXPECT_EQ(trace.count("DEBUG", "Signaling ready to launcher_h_9 with given"), 1);
  const fake_request& request = fake_transport().requests.front();
  EXPECT_EQ(request.service, "launcher_h_9");
  EXPECT_EQ(request.text, kv_ready_text("given", "w_h_1", "own-secret"));
  EXPECT_EQ(request.timeout_ms, 5000);
  EXPECT_EQ(request.retries, 3U);
  for (const char* reply : {"", "{}", "{\"ReturnCode\": -1000}"}) {
    fake_transport().answer = [=](const fake_request&) { return reply; };
    EXPECT_EQ(kv_worker_send_ready(*config, identity), -1) << reply;
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to send READY message"), 3);
}

TEST_F(registration, shutdown_needs_return_code_zero) {
  config->shutdown_when_ready = strdup("temp_h_9");
  config->secret = strdup("given");
  EXPECT_EQ(kv_worker_send_shutdown(*config), 0);
  EXPECT_EQ(trace.count("DEBUG", "Sending shutdown request to temp_h_9 with given"), 1);
  EXPECT_EQ(trace.count("TRACE", "Shutdown message reception confirmed by temp_h_9"), 1);
  EXPECT_EQ(fake_transport().requests.front().text, kv_shutdown_text("given"));
  EXPECT_EQ(fake_transport().requests.front().timeout_ms, 5000);
  fake_transport().answer = [](const fake_request&) { return "{\"ReturnCode\": -1000}"; };
  EXPECT_EQ(kv_worker_send_shutdown(*config), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to send SHUTDOWN message"), 1);
}

TEST_F(registration, notices_carry_their_code) {
  EXPECT_EQ(kvworker_send_hwm_notice(config.get(), config->amqp, "w"), 0);
  config->primary = 1;
  EXPECT_EQ(kvworker_send_lwm_notice(config.get(), config->amqp, "w"), 0);
  EXPECT_EQ(fake_transport().texts(),
            (std::vector<std::string>{kv_notice_text(201, "w", 0), kv_notice_text(202, "w", 1)}));
  for (const fake_request& request : fake_transport().requests) {
    EXPECT_EQ(request.service, "kv-av-worker-control");
    EXPECT_EQ(request.timeout_ms, 3000);
    EXPECT_EQ(request.retries, 3U);
  }
  fake_transport().answer = [](const fake_request&) { return "{\"ReturnCode\": 7}"; };
  EXPECT_EQ(kvworker_send_hwm_notice(config.get(), config->amqp, "w"), 0);
  fake_transport().answer = [](const fake_request&) { return ""; };
  EXPECT_EQ(kvworker_send_hwm_notice(config.get(), config->amqp, "w"), -1);
}

}  // namespace
