#include "messaging/kv_amqp_client.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/trace_capture.h"

namespace {

kv_amqp_config_ptr unconnected() {
  return kv_amqp_config_ptr{kv_amqp_config_new()};
}

TEST(AmqpConfig, BeginsZeroAndFreesItsTexts) {
  kv_amqp_config* config = kv_amqp_config_new();
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->broker_host, nullptr);
  EXPECT_EQ(config->cert_data, nullptr);
  EXPECT_EQ(config->use_uamqp, 0);
  EXPECT_EQ(config->transport, nullptr);
  config->broker_host = strdup("localhost");
  config->broker_password = strdup("secret");
  kv_amqp_config_free(&config);
  EXPECT_EQ(config, nullptr);
  kv_amqp_config_free(&config);
  kv_amqp_config_free(nullptr);
}

struct retry_case {
  std::uint32_t retries;
  int attempts;
  std::string last_line;
};
class Retries : public testing::TestWithParam<retry_case> {};

// Without a transport every attempt fails at once.
TEST_P(Retries, AreCountedAsLogged) {
  const trace_capture trace;
  const kv_amqp_config_ptr config = unconnected();
  EXPECT_EQ(kv_amqp_send_recv_json(config.get(), "svc", "{}", 10, GetParam().retries, nullptr),
            nullptr);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameters"), GetParam().attempts);
  EXPECT_EQ(trace.count("INFO", "Retrying... Retries left: "),
            GetParam().attempts > 0 ? GetParam().attempts - 1 : 0);
  if (!GetParam().last_line.empty()) {
    EXPECT_EQ(trace.count("INFO", GetParam().last_line), 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Counts, Retries,
                         testing::Values(retry_case{0, 1, ""},
                                         retry_case{1, 2, "Retrying... Retries left: 0"},
                                         retry_case{3, 4, "Retrying... Retries left: 2"},
                                         retry_case{4294967295U, 0, ""}),
                         [](const auto& row) { return "Of" + std::to_string(row.param.retries); });

TEST(AmqpClient, LogsTheRequestWithItsTimeout) {
  const trace_capture trace;
  const kv_amqp_config_ptr config = unconnected();
  EXPECT_EQ(kv_amqp_simple_request(config.get(), "svc", "{\"a\":1}", 70, 0, nullptr), -1);
  EXPECT_EQ(trace.count("DEBUG", "Sending request to service svc (timeout: 70ms):"), 1);
  EXPECT_EQ(trace.count("{\"a\":1}"), 1);
}

TEST(AmqpClient, HandsTheFailureTextToItsCaller) {
  const kv_amqp_config_ptr config = unconnected();
  char error[KV_ERROR_TEXT_SIZE] = "";
  EXPECT_EQ(kv_amqp_send_recv_json(config.get(), "svc", "{}", 10, 0, error), nullptr);
  EXPECT_STREQ(error, "Invalid parameters");
}

TEST(AmqpClient, RefusesRequestsOverATransportThatIsNotThere) {
  const trace_capture trace;
  const kv_amqp_config_ptr config = unconnected();
  config->use_uamqp = 1;
  char error[KV_ERROR_TEXT_SIZE] = "";
  EXPECT_EQ(kv_amqp_simple_request(config.get(), "svc", "{}", 10, 0, error), -1);
  EXPECT_STREQ(error, "The uAMQP transport is not part of this build");
  EXPECT_EQ(trace.count("ERROR", "The uAMQP transport is not part of this build"), 1);
}

TEST(AmqpClient, TakesNoMissingArguments) {
  const kv_amqp_config_ptr config = unconnected();
  EXPECT_EQ(kv_amqp_send_recv_json(nullptr, "svc", "{}", 10, 0, nullptr), nullptr);
  EXPECT_EQ(kv_amqp_send_recv_json(config.get(), nullptr, "{}", 10, 0, nullptr), nullptr);
  EXPECT_EQ(kv_amqp_send_recv_json_data(config.get(), "svc", nullptr, 10, 0, 0, nullptr), nullptr);
  EXPECT_EQ(kv_amqp_init(nullptr), -1);
  kv_amqp_deinit(nullptr);
  kv_amqp_stop_services(nullptr, 1);
}

}  // namespace
