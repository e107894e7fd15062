// The facade over a real broker: what becomes of replies.
#include "messaging/kv_amqp_client.h"

#include <gtest/gtest.h>

#include <string>

#include "common/kv_guard.h"
#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using facade_test = transport_test;

request_handler with_reply(const char* text) {
  return [text](kv_const_request_reply_t& pair) {
    pair.reply->json = copy_text(text);
    return 0;
  };
}

TEST_F(facade_test, GivesTheReturnCodeOfTheReply) {
  const service server(settings(), "codes", with_reply(R"({"ReturnCode": 17})"));
  EXPECT_EQ(kv_amqp_simple_request(client().config(), "codes", "{}", 20'000, 0, nullptr), 17);
}

TEST_F(facade_test, WithoutAReturnCodeTheSimpleRequestFails) {
  const trace_capture trace;
  const service server(settings(), "nocode", with_reply("{}"));
  EXPECT_EQ(kv_amqp_simple_request(client().config(), "nocode", "{}", 20'000, 0, nullptr), -1);
  EXPECT_EQ(trace.count("WARN", "Object ReturnCode not found"), 1);
}

TEST_F(facade_test, AReplyThatIsNoJsonIsNoReply) {
  const trace_capture trace;
  const service server(settings(), "nojson", with_reply("no JSON"));
  EXPECT_EQ(kv_amqp_send_recv_json(client().config(), "nojson", "{}", 20'000, 3, nullptr), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Failed to parse JSON. Errorcode: "), 1);
  EXPECT_EQ(trace.count("Retrying..."), 0);
  EXPECT_EQ(trace.count("DEBUG", "Received reply from service nojson:"), 1);
}

TEST_F(facade_test, WithDataLeavesThePairToItsOwner) {
  const trace_capture trace;
  const service server(settings(), "withdata", echo);
  const std::string data("\0data", 5);
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->request->json = R"({"ReturnCode": 0})";
  pair->request->data = data.data();
  pair->request->data_size = data.size();
  const kv_json_ptr reply{kv_amqp_send_recv_json_data(client().config(), "withdata", pair.get(),
                                                      20'000, 100, 0, nullptr)};
  EXPECT_NE(reply, nullptr);
  EXPECT_EQ(pair->reply->json, nullptr);
  EXPECT_EQ(pair->reply->data_size, data.size());
  EXPECT_STREQ(pair->request->json, R"({"ReturnCode": 0})");
  EXPECT_EQ(trace.count("Sending request to service"), 0);
  EXPECT_EQ(trace.count("Received reply from service"), 0);
}

TEST_F(facade_test, TimesOutAfterEveryRetry) {
  const trace_capture trace;
  EXPECT_EQ(kv_amqp_simple_request(client().config(), "nobody", "{}", 100, 2, nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "Timeout"), 3);
  EXPECT_EQ(trace.count("INFO", "Retrying... Retries left: 1"), 1);
  EXPECT_EQ(trace.count("INFO", "Retrying... Retries left: 0"), 1);
}

}  // namespace
