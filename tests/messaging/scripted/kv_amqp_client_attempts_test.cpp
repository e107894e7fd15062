// The facade's attempts and what it makes of replies. This program defines the transport's
// functions itself, so that each attempt ends as the test says.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/kv_guard.h"
#include "messaging/kv_amqp_client.h"
#include "messaging/kv_qpid_proton_mt_interface.h"
#include "support/trace_capture.h"

namespace {

struct attempt {
  std::string service;
  std::string json;
  std::int32_t timeout_ms;
  std::int32_t extra_time_ms;
};

// How an attempt ends; its number counts from 1.
using attempt_end = std::function<int(int number, kv_message_t& reply, char* error_text)>;

struct scripted_transport {
  std::vector<attempt> attempts;
  attempt_end end;
  int init_rc = 0;
  int inits = 0;
};
scripted_transport transport;

attempt_end answer(const char* text) {
  return [text](int, kv_message_t& reply, char*) {
    reply.json = text == nullptr ? nullptr : strdup(text);
    return 0;
  };
}

class Attempts : public testing::Test {
 protected:
  void SetUp() override { transport = {}; }
  kv_json_ptr ask(std::uint32_t retries, char* error = nullptr) {
    return kv_json_ptr{
        kv_amqp_send_recv_json(config.get(), "svc", "{\"q\":1}", 70, retries, error)};
  }

  kv_amqp_config_ptr config{kv_amqp_config_new()};
  trace_capture trace;
};

TEST_F(Attempts, EndWithTheFirstThatSucceeds) {
  transport.end = [](int number, kv_message_t& reply, char*) {
    reply.json = strdup(number < 3 ? "left by a failure" : "{\"n\": 5}");
    return number < 3 ? -1 : 0;
  };
  const kv_json_ptr reply = ask(3);
  ASSERT_TRUE(reply);
  EXPECT_STREQ(json_object_to_json_string(reply.get()), "{ \"n\": 5 }");
  ASSERT_EQ(transport.attempts.size(), 3U);
  EXPECT_EQ(transport.attempts[2].service, "svc");
  EXPECT_EQ(transport.attempts[2].json, "{\"q\":1}");
  EXPECT_EQ(transport.attempts[2].timeout_ms, 70);
  EXPECT_EQ(transport.attempts[2].extra_time_ms, 0);
  EXPECT_EQ(trace.count("INFO", "Retrying... Retries left: 2"), 1);
  EXPECT_EQ(trace.count("INFO", "Retrying... Retries left: 1"), 1);
  EXPECT_EQ(trace.count("Retrying..."), 2);
  EXPECT_EQ(trace.count("{\"n\": 5}"), 1) << "the reply is logged once";
}

TEST_F(Attempts, WithoutRetriesThereIsOne) {
  transport.end = [](int, kv_message_t&, char* error_text) {
    std::strcpy(error_text, "out of order");
    return 7;
  };
  char error[KV_ERROR_TEXT_SIZE] = "";
  EXPECT_FALSE(ask(0, error));
  EXPECT_STREQ(error, "out of order");
  EXPECT_EQ(transport.attempts.size(), 1U);
  EXPECT_EQ(trace.count("Retrying..."), 0);
}

TEST_F(Attempts, EmptyReplyIsNoneAndIsNotAskedForAgain) {
  transport.end = answer(nullptr);
  EXPECT_FALSE(ask(3));
  EXPECT_EQ(transport.attempts.size(), 1U);
  EXPECT_EQ(trace.count("WARN", "Received an empty reply"), 1);
  EXPECT_EQ(trace.count("Received reply from service"), 0);
}

TEST_F(Attempts, ReplyNullIsNoneWithoutAnErrorLine) {
  transport.end = answer("null");
  EXPECT_FALSE(ask(0));
  EXPECT_EQ(kv_amqp_simple_request(config.get(), "svc", "{}", 70, 0, nullptr), -1);
  EXPECT_EQ(trace.count("] ERROR"), 0);
}

struct code_case {
  const char* reply;
  int code;
};
class ReplyCode : public Attempts, public testing::WithParamInterface<code_case> {};
INSTANTIATE_TEST_SUITE_P(Replies, ReplyCode,
                         testing::Values(code_case{R"({"ReturnCode": 0})", 0},
                                         code_case{R"({"ReturnCode": -1000, "Error": "x"})", -1000},
                                         code_case{R"({"ReturnCode": "12"})", -1},
                                         code_case{R"({"ReturnCode": null})", -1},
                                         code_case{R"({"ReturnCode": 99999999999})", INT32_MAX},
                                         code_case{R"({"ReturnCode": 1, "ReturnCode": 2})", 2},
                                         code_case{R"({"returncode": 0})", -1}, code_case{"[]", -1},
                                         code_case{"7", -1}, code_case{"{\"ReturnCode\": 0", -1},
                                         code_case{"", -1}));
TEST_P(ReplyCode, IsTheIntegerOfTheReply) {
  transport.end = answer(GetParam().reply);
  EXPECT_EQ(kv_amqp_simple_request(config.get(), "svc", "{}", 70, 0, nullptr), GetParam().code);
}

TEST_F(Attempts, WithDataPassTheirExtraTimeAndLeaveThePair) {
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->request->json = "{}";
  transport.end = answer(nullptr);
  EXPECT_EQ(kv_amqp_send_recv_json_data(config.get(), "svc", pair.get(), 70, 500, 0, nullptr),
            nullptr);
  EXPECT_EQ(trace.count("WARN", "Received an empty reply"), 1);
  transport.end = answer("{\"a\": 1}");
  const kv_json_ptr reply{
      kv_amqp_send_recv_json_data(config.get(), "svc", pair.get(), 70, 500, 0, nullptr)};
  EXPECT_TRUE(reply);
  EXPECT_EQ(transport.attempts.back().extra_time_ms, 500);
  EXPECT_EQ(pair->reply->json, nullptr);
  EXPECT_EQ(trace.count("Sending request"), 0);
  EXPECT_EQ(trace.count("Received reply"), 0);
}

TEST_F(Attempts, ExceptionsDoNotPass) {
  transport.end = [](int, kv_message_t&, char*) -> int { throw std::bad_alloc{}; };
  EXPECT_FALSE(ask(3));
  EXPECT_EQ(kv_amqp_simple_request(config.get(), "svc", "{}", 70, 0, nullptr), -1);
}

TEST_F(Attempts, InitAnswersZeroWhateverTheTransportAnswers) {
  transport.init_rc = -1;
  EXPECT_EQ(kv_amqp_init(config.get()), 0);
  EXPECT_EQ(transport.inits, 1);
}

}  // namespace

int kv_qpid_init(kv_amqp_config*) {
  ++transport.inits;
  return transport.init_rc;
}
bool kv_qpid_wait_connected(kv_amqp_config*, std::uint32_t) {
  return true;
}
void kv_qpid_stop_services(kv_amqp_config*, std::uint32_t) {}
void kv_qpid_deinit(kv_amqp_config*) {}

int kv_qpid_send_receive_mt(kv_amqp_config*, const char* service, std::int32_t timeout_ms,
                            std::int32_t extra_time_ms, kv_const_request_reply_t* pair,
                            char* error_text) {
  transport.attempts.push_back({service, pair->request->json, timeout_ms, extra_time_ms});
  return transport.end(static_cast<int>(transport.attempts.size()), *pair->reply, error_text);
}

int kv_qpid_start_service_handler_threads(kv_amqp_config*, const char*, kv_service_request_callback,
                                          void*, const std::atomic<std::int32_t>*, int) {
  return -1;
}
