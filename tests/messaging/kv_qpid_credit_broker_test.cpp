// A broker that grants the sending link no credit.
#include <gtest/gtest.h>
#include <proton/disposition.h>

#include <future>
#include <string>

#include "messaging/raw_client.h"
#include "messaging/scripted_broker.h"
#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using namespace std::chrono_literals;

std::string request(std::uint64_t id) {
  proton::message message;
  message.id(proton::message_id(id));
  message.reply_to("answers");
  return message_head(message) + std::string("\x00\x53\x77\xc0\x05\x01\xa1\x02{}", 10);
}

peer_script stingy() {
  peer_script script;
  script.credit = 0;
  return script;
}

kv_qpid_options patient_for(std::chrono::milliseconds reply) {
  kv_qpid_options options;
  options.reply_time_to_live = reply;
  return options;
}

TEST(NoCredit, MakesAReplyWaitForItsOwnTimeAndItsRequestComeAgain) {
  const trace_capture trace;
  scripted_broker broker(stingy());
  const service server(broker.client_config(), "svc", echo, 1, patient_for(400ms));
  broker.push("svc", request(1));
  ASSERT_TRUE(eventually([&] { return server.handled() == 1; }));
  const auto start = test_clock::now();
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_MODIFIED) == 1; }));
  EXPECT_GE(test_clock::now() - start, 300ms);
  EXPECT_LT(test_clock::now() - start, 2s);
  EXPECT_GE(
      trace.count("WARN", "Reply to 'answers' not sent: Timeout. Its request is delivered again"),
      1);
  EXPECT_EQ(broker.settled("svc", PN_ACCEPTED), 0);
  broker.set_credit(10);
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  EXPECT_EQ(broker.received("answers"), 1);
}

TEST(NoCredit, IsFiveSecondsLongForAReply) {
  EXPECT_EQ(kv_qpid_options{}.reply_time_to_live, 5s);
}

TEST(NoCredit, ThatComesBackInTimeSendsTheReply) {
  scripted_broker broker(stingy());
  const service server(broker.client_config(), "svc", echo, 1);
  broker.push("svc", request(1));
  ASSERT_TRUE(eventually([&] { return server.handled() == 1; }));
  std::this_thread::sleep_for(100ms);  // into the wait
  EXPECT_EQ(broker.received("answers"), 0);
  broker.set_credit(1);
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  EXPECT_EQ(broker.settled("svc", PN_MODIFIED), 0);
  EXPECT_EQ(server.handled(), 1);
}

// The threads of one address wait; those of another take their requests all the same.
TEST(NoCredit, HoldsUpNoOtherAddress) {
  scripted_broker broker(stingy());
  const service server(broker.client_config(), "svc", echo, 1);
  broker.push("svc", request(1));
  ASSERT_TRUE(eventually([&] { return server.handled() == 1; }));
  std::atomic<std::int32_t> stop{0};
  std::atomic<int> handled{0};
  const auto silent = [](void* count, kv_const_request_reply_t*) -> std::int32_t {
    static_cast<std::atomic<int>*>(count)->fetch_add(1);
    return 0;
  };
  service other(broker.client_config(), "other", echo, 1);
  ASSERT_EQ(kv_qpid_start_service_handler_threads(other.end().config(), "silent", silent, &handled,
                                                  &stop, 1),
            0);
  broker.push("other", request(2));
  for (std::uint64_t i = 0; i < 20; ++i) {
    broker.push("silent", request(i));
  }
  EXPECT_TRUE(eventually([&] { return broker.settled("silent", PN_ACCEPTED) == 20; }, 3s));
  EXPECT_EQ(broker.settled("other", PN_MODIFIED), 0);
  stop = 1;
}

TEST(NoCredit, EndsACallersWaitAtItsOwnTimeOut) {
  scripted_broker broker(stingy());
  endpoint client(broker.client_config());
  ASSERT_TRUE(client.wait_until_open());
  auto slow = std::async(std::launch::async, [&] { return client.request("a", "{}", {}, 1500); });
  const auto start = test_clock::now();
  EXPECT_EQ(client.request("b", "{}", {}, 300).error, "Timeout");
  EXPECT_LT(test_clock::now() - start, 1200ms);
  EXPECT_EQ(slow.get().error, "Timeout");
  EXPECT_GE(test_clock::now() - start, 1400ms);
}

TEST(NoCredit, IsNotOutlastedByAMessageThatHasPassedItsTime) {
  scripted_broker broker(stingy());
  endpoint client(broker.client_config());
  ASSERT_TRUE(client.wait_until_open());
  EXPECT_EQ(client.request("late", "{}", {}, 200).error, "Timeout");
  broker.set_credit(10);
  EXPECT_EQ(client.request("next", "{}", {}, 300).error, "Timeout");
  EXPECT_EQ(broker.received("next"), 1);
  EXPECT_EQ(broker.received("late"), 0);
}

TEST(NoCredit, DoesNotHoldUpTheEnd) {
  const trace_capture trace;
  scripted_broker broker(stingy());
  service server(broker.client_config(), "svc", echo, 4);
  for (std::uint64_t i = 0; i < 10; ++i) {
    broker.push("svc", request(i));
  }
  ASSERT_TRUE(eventually([&] { return server.handled() == 4; }));
  EXPECT_LT(server.end().end(), 2000ms);
  EXPECT_EQ(trace.count("] ERROR"), 0);
  EXPECT_EQ(broker.settled("svc", PN_ACCEPTED), 0);
}

}  // namespace
