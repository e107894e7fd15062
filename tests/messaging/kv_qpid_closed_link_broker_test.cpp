// A broker that closes, refuses or ignores the sending link: what had no outcome is sent again, the
// message that it was about is found and given up.
#include <gtest/gtest.h>
#include <proton/disposition.h>

#include <atomic>
#include <future>
#include <string>

#include "messaging/raw_client.h"
#include "messaging/scripted_broker.h"
#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kGivenUp = "given up: the broker closes the link over it";

std::string request(std::uint64_t id, const std::string& reply_to) {
  proton::message message;
  message.id(proton::message_id(id));
  message.reply_to(reply_to);
  return message_head(message) + std::string("\x00\x53\x77\xc0\x05\x01\xa1\x02{}", 10);
}

kv_qpid_options impatient() {
  kv_qpid_options options;
  options.connect_timeout = 1000ms;
  options.backoff_longest = 100ms;
  return options;
}

// A broker that dislikes what goes to "bad".
peer_script picky(peer_answer dislike, const std::string& condition = "amqp:not-found") {
  peer_script script;
  script.condition = condition;
  script.answer = [dislike](const std::string& to) {
    return to == "bad" ? dislike : peer_answer::accept;
  };
  return script;
}

struct closing_case {
  const char* name;
  peer_answer answer;
  const char* condition;
};
class ClosedOverAMessage : public testing::TestWithParam<closing_case> {};

TEST_P(ClosedOverAMessage, OfTwentyInFlightOneIsGivenUpAndTheOthersArrive) {
  const trace_capture trace;
  peer_script script = picky(GetParam().answer, GetParam().condition);
  script.gather = 20;
  scripted_broker broker(std::move(script));
  const service server(broker.client_config(), "svc", echo, 4, impatient());
  for (std::uint64_t i = 0; i < 20; ++i) {
    broker.push("svc", request(i, i == 10 ? "bad" : "good" + std::to_string(i)));
  }
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 20; }));
  for (int i = 0; i < 20; ++i) {
    EXPECT_GE(broker.received("good" + std::to_string(i)), i == 10 ? 0 : 1) << i;
  }
  EXPECT_EQ(broker.received("bad"), 3);  // in company, then twice alone
  EXPECT_LE(broker.opened_links(), 5);
  EXPECT_EQ(broker.settled("svc", PN_MODIFIED), 0);
  EXPECT_EQ(trace.count("WARN", kGivenUp), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, ClosedOverAMessage,
    testing::Values(
        closing_case{"Link", peer_answer::close_link, "amqp:not-found"},
        closing_case{"LinkForSize", peer_answer::close_link, "amqp:link:message-size-exceeded"},
        closing_case{"LinkThenSession", peer_answer::close_link_then_session, "amqp:not-found"},
        closing_case{"Connection", peer_answer::close_connection, "amqp:not-found"},
        closing_case{"ConnectionForSize", peer_answer::close_connection,
                     "amqp:link:message-size-exceeded"}),
    [](const auto& row) { return row.param.name; });

TEST(ClosedLink, KeepsItsConnectionAndTheRequestsInWork) {
  const trace_capture trace;
  scripted_broker broker(picky(peer_answer::close_link));
  const service server(broker.client_config(), "svc", echo, 4, impatient());
  broker.push("svc", request(1, "bad"));
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  EXPECT_EQ(broker.delivered("svc"), 1) << "not delivered again";
  EXPECT_EQ(broker.connections(), 1);
  EXPECT_EQ(broker.opened_links(), 3);
  EXPECT_EQ(broker.received("bad"), 2);
  EXPECT_EQ(trace.count("ERROR", "unexpected error: amqp:not-found"), 2);
  EXPECT_EQ(trace.count("WARN", "The broker closed the sender's link, opening another one"), 2);
}

// A destination that is not there costs its closings once, not once for each reply.
TEST(ClosedLink, IsRiskedOnlyTwiceForADestinationThatIsNotThere) {
  const trace_capture trace;
  scripted_broker broker(picky(peer_answer::close_link));
  const service server(broker.client_config(), "svc", echo, 4, impatient());
  for (std::uint64_t i = 0; i < 30; ++i) {
    broker.push("svc", request(i, "bad"));
  }
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 30; }));
  EXPECT_LE(broker.opened_links(), 4);
  EXPECT_EQ(trace.count("WARN", kGivenUp), 30);
}

TEST(ClosedLink, OverALargeMessageLosesNoOtherToTheSameDestination) {
  std::atomic<int> closings{0};
  peer_script script = picky(peer_answer::accept, "amqp:link:message-size-exceeded");
  script.answer = [&](const std::string&) {
    return closings.fetch_add(1) < 2 ? peer_answer::close_link : peer_answer::accept;
  };
  scripted_broker broker(std::move(script));
  const service server(broker.client_config(), "svc", echo, 1, impatient());
  broker.push("svc", request(1, "answers"));
  ASSERT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  broker.push("svc", request(2, "answers"));
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 2; }));
  EXPECT_EQ(broker.received("answers"), 3);
}

TEST(ClosedLink, OverAnOutgoingRequestSendsTheOthersAgain) {
  peer_script script = picky(peer_answer::close_link);
  script.gather = 2;
  scripted_broker broker(std::move(script));
  endpoint client(broker.client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  auto other =
      std::async(std::launch::async, [&] { return client.request("other", "{}", {}, 1000); });
  EXPECT_EQ(client.request("bad", "{}", {}, 1000).error, "Timeout");
  EXPECT_EQ(other.get().error, "Timeout") << "nobody answers here";
  EXPECT_EQ(broker.received("other"), 2);
  EXPECT_EQ(broker.received("bad"), 3);
}

// A message whose outcome does not come stands between the culprit and its discovery for a while.
TEST(ClosedLink, IsBlamedOnTheCulpritBesideAMessageWithoutOutcome) {
  const trace_capture trace;
  peer_script script;
  script.answer = [](const std::string& to) {
    return to == "bad" ? peer_answer::close_link : peer_answer::hold;
  };
  scripted_broker broker(std::move(script));
  const service server(broker.client_config(), "svc", echo, 4, impatient());
  broker.push("svc", request(1, "held"));
  ASSERT_TRUE(eventually([&] { return broker.received("held") == 1; }));
  broker.push("svc", request(2, "bad"));
  EXPECT_TRUE(eventually([&] { return trace.count("WARN", kGivenUp) == 1; }));
  EXPECT_EQ(broker.received("bad"), 3);
  EXPECT_EQ(trace.count("WARN", "Message to 'bad' given up"), 1);
}

// What was in flight is sent again only within its time, and a reply that is too late leaves its
// request to be delivered again.
TEST(ClosedLink, ThatIsFollowedByOneWithoutCreditHoldsAReplyForItsTimeOnly) {
  const trace_capture trace;
  scripted_broker* self = nullptr;
  std::atomic<bool> closed{false};
  peer_script script;
  script.answer = [&](const std::string&) {
    if (closed.exchange(true)) {
      return peer_answer::accept;
    }
    self->set_credit(0);
    return peer_answer::close_link;
  };
  scripted_broker broker(std::move(script));
  self = &broker;
  kv_qpid_options options = impatient();
  options.reply_time_to_live = 500ms;
  const service server(broker.client_config(), "svc", echo, 1, options);
  broker.push("svc", request(1, "answers"));
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_MODIFIED) >= 1; }));
  EXPECT_EQ(trace.count("WARN", "Message to 'answers' not sent: its time-out has passed"), 1);
  EXPECT_EQ(broker.received("answers"), 1);
  broker.set_credit(10);
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  EXPECT_EQ(broker.received("answers"), 2);
  EXPECT_EQ(broker.connections(), 1);
}

// It rejects a large message before it has seen all of it.
TEST(EarlyOutcome, OfAMessageOfManyFramesIsTakenAndTheNextOneIsWhole) {
  const trace_capture trace;
  peer_script script;
  script.max_frame = 1024;
  script.reject_at_first_frame = true;
  scripted_broker broker(std::move(script));
  std::atomic<int> count{0};
  const service server(
      broker.client_config(), "svc",
      [&](kv_const_request_reply_t& pair) {
        const bool is_large = count.fetch_add(1) % 2 == 0;
        pair.reply->json = copy_text(is_large ? std::string(1 << 20, 'x').c_str() : "{}");
        return 0;
      },
      1);
  for (std::uint64_t i = 0; i < 10; ++i) {
    broker.push("svc", request(i, "answers"));
  }
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 10; }));
  EXPECT_EQ(broker.received("answers"), 5);
  EXPECT_EQ(broker.connections(), 1);
  EXPECT_EQ(trace.count("WARN", "The broker answered 'rejected' to the message to 'answers'"), 5);
}

struct attach_case {
  const char* name;
  peer_attach attach;
  const char* condition;
  const char* text;  // in the log
};
class LinkThatDoesNotStand : public testing::TestWithParam<attach_case> {};

TEST_P(LinkThatDoesNotStand, IsLoggedAndTriedAgainWithPauses) {
  const trace_capture trace;
  peer_script script;
  script.attach = GetParam().attach;
  script.condition = GetParam().condition;
  scripted_broker broker(std::move(script));
  service server(broker.client_config(), "svc", echo, 2, impatient());
  broker.push("svc", request(1, "answers"));
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", GetParam().text) >= 3; }));
  EXPECT_GE(broker.attempted_links(), 3);
  EXPECT_GE(broker.connections(), 3) << "each attempt is a connection, with its pause";
  EXPECT_EQ(broker.settled("svc", PN_ACCEPTED), 0);
  broker.set_attach(peer_attach::open);
  EXPECT_TRUE(eventually([&] { return broker.settled("svc", PN_ACCEPTED) == 1; }));
  EXPECT_EQ(trace.count("WARN", kGivenUp), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, LinkThatDoesNotStand,
    testing::Values(attach_case{"NotFound", peer_attach::refuse, "amqp:not-found",
                                "unexpected error: amqp:not-found"},
                    attach_case{"Unauthorized", peer_attach::refuse, "amqp:unauthorized-access",
                                "unexpected error: amqp:unauthorized-access"},
                    attach_case{"NoAnswer", peer_attach::ignore, "", "connect time-out expired"}),
    [](const auto& row) { return row.param.name; });

TEST(LinkThatDoesNotStand, EndsWithTheProcess) {
  for (const peer_attach attach : {peer_attach::refuse, peer_attach::ignore}) {
    peer_script script;
    script.attach = attach;
    scripted_broker broker(std::move(script));
    service server(broker.client_config(), "svc", echo, 2);
    ASSERT_TRUE(eventually([&] { return broker.attempted_links() >= 1; }));
    EXPECT_LT(server.end().end(), 2000ms);
  }
}

}  // namespace
