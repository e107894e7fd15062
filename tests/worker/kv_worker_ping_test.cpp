#include "worker/kv_worker_ping.h"

#include "process_fixture.h"

namespace {

class worker_ping : public process_fixture {};

TEST_F(worker_ping, the_broker_itself_answers_without_a_message) {
  EXPECT_EQ(kv_worker_ping(config->amqp, "kv-av-broker", 0, 1, 0), 0);
  EXPECT_TRUE(fake_transport().requests.empty());
  EXPECT_EQ(trace.count("Pinging"), 0);
}

TEST_F(worker_ping, an_answer_ends_the_tries) {
  EXPECT_EQ(kv_worker_ping(config->amqp, "kv-av-worker-control", 3, 2000, 0), 0);
  ASSERT_EQ(fake_transport().requests.size(), 1U);
  const fake_request& request = fake_transport().requests.front();
  EXPECT_EQ(request.service, "kv-av-worker-control");
  EXPECT_EQ(request.text, "{ \"Command\" : 3 }");
  EXPECT_EQ(request.timeout_ms, 2000);
  EXPECT_EQ(request.retries, 0U);
  EXPECT_EQ(trace.count("TRACE", "Pinging kv-av-worker-control"), 1);
  EXPECT_EQ(trace.count("TRACE", "Got reply from kv-av-worker-control"), 1);
}

TEST_F(worker_ping, a_reply_without_a_return_code_is_an_answer) {
  fake_transport().answer = [](const fake_request&) { return "{\"Hello\": 1}"; };
  EXPECT_EQ(kv_worker_ping(config->amqp, "other", 1, 10, 0), 0);
}

TEST_F(worker_ping, tries_are_exhausted) {
  fake_transport().answer = [](const fake_request&) { return ""; };
  EXPECT_EQ(kv_worker_ping(config->amqp, "other", 3, 10, 1), -1);
  EXPECT_EQ(fake_transport().requests.size(), 3U);
  EXPECT_EQ(trace.count("Got reply"), 0);
}

TEST_F(worker_ping, fewer_than_one_try_fails_without_a_message) {
  EXPECT_EQ(kv_worker_ping(config->amqp, "other", 0, 10, 0), -1);
  EXPECT_EQ(kv_worker_ping(config->amqp, "other", -1, 10, 0), -1);
  EXPECT_TRUE(fake_transport().requests.empty());
}

TEST_F(worker_ping, pauses_after_each_failure) {
  fake_transport().answer = [](const fake_request&) { return ""; };
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kv_worker_ping(config->amqp, "other", 2, 10, 30), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

}  // namespace
