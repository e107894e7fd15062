// Messages that no honest peer sends, through a real broker.
#include <gtest/gtest.h>

#include <string>

#include "messaging/raw_client.h"
#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using hostile_test = transport_test;

proton::message foreign_request(const std::string& reply_to = {}) {
  proton::message message;
  message.id(proton::message_id(std::uint64_t{7}));
  message.reply_to(reply_to);
  return message;
}

// Sends the bytes to a service and asks it an ordinary question afterwards.
void expect_service_survives(endpoint& client, kv_amqp_config_ptr settings,
                             const std::string& address, std::vector<std::string> messages) {
  const kv_amqp_config_ptr foreign = std::move(settings);
  EXPECT_TRUE(raw_sender(*foreign, address, std::move(messages)).run());
  const exchange answer = client.request(address, "{}");
  EXPECT_EQ(answer.rc, 0) << answer.error;
}

TEST_F(hostile_test, AListOfMoreElementsThanTheDecoderTakesHarmsNobody) {
  const service server(settings(), "nulls", echo);
  expect_service_survives(client(), settings(), "nulls",
                          {message_head(foreign_request()) + list_of_nulls(70'000)});
}

TEST_F(hostile_test, ABodyThatIsCutShortHarmsNobody) {
  const service server(settings(), "cut", echo);
  expect_service_survives(
      client(), settings(), "cut",
      {message_head(foreign_request()) + std::string("\x00\x53\x77\xb1\x7f\xff\xff\xff{}", 10)});
}

TEST_F(hostile_test, ABodyNestedTenThousandDeepHarmsNobody) {
  const service server(settings(), "deep", echo);
  // A descriptor of a descriptor of ...
  const std::string body = std::string("\x00\x53\x77", 3) + std::string(10'000, '\0');
  expect_service_survives(client(), settings(), "deep", {message_head(foreign_request()) + body});
}

}  // namespace
