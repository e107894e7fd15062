#include "messaging/kv_qpid_suspects.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::chrono_literals;
using passage = kv_qpid_suspects::passage;
using message = kv_qpid_suspects::message;

constexpr const char* kNotFound = "amqp:not-found";
constexpr const char* kTooLarge = "amqp:link:message-size-exceeded";
const kv_qpid_suspects::time_point kNow{1h};

TEST(Suspects, ThereAreNoneAtFirst) {
  const kv_qpid_suspects suspects;
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::free);
}

TEST(Suspects, AreAllDestinationsThatWereInFlightAndNoOthers) {
  kv_qpid_suspects suspects;
  suspects.closed({{"a", "1"}, {"b", "2"}}, kNotFound, kNow);
  EXPECT_EQ(suspects.passage_of({"a", "9"}, kNow), passage::alone);
  EXPECT_EQ(suspects.passage_of({"b", "2"}, kNow), passage::alone);
  EXPECT_EQ(suspects.passage_of({"c", "1"}, kNow), passage::free);
}

TEST(Suspects, AreClearedByAnOutcome) {
  kv_qpid_suspects suspects;
  suspects.closed({{"a", "1"}, {"b", "2"}}, kNotFound, kNow);
  suspects.answered({"a", "1"});
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::free);
  EXPECT_EQ(suspects.passage_of({"b", "2"}, kNow), passage::alone);
}

TEST(Suspects, AreNeverGuiltyInCompany) {
  kv_qpid_suspects suspects;
  for (int i = 0; i < 10; ++i) {
    suspects.closed({{"a", "1"}, {"b", "2"}}, kNotFound, kNow);
  }
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::alone);
}

TEST(Suspects, AreGuiltyAtTheSecondClosingOverThemAlone) {
  kv_qpid_suspects suspects;
  suspects.closed({{"a", "1"}}, kTooLarge, kNow);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::alone);
  suspects.closed({{"a", "1"}}, kTooLarge, kNow);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::none);
  EXPECT_EQ(suspects.passage_of({"a", "2"}, kNow), passage::alone) << "another message";
}

TEST(Suspects, AreGuiltyWithTheirDestinationWhenTheReasonLiesThere) {
  for (const char* condition : {kNotFound, "amqp:not-allowed", "amqp:unauthorized-access"}) {
    kv_qpid_suspects suspects;
    suspects.closed({{"a", "1"}}, condition, kNow);
    suspects.closed({{"a", "2"}}, condition, kNow);
    EXPECT_EQ(suspects.passage_of({"a", "3"}, kNow), passage::none) << condition;
    EXPECT_EQ(suspects.passage_of({"b", "3"}, kNow), passage::free) << condition;
  }
}

TEST(Suspects, AreTriedAloneAgainAfterAMinute) {
  kv_qpid_suspects suspects;
  suspects.closed({{"a", "1"}}, kNotFound, kNow);
  suspects.closed({{"a", "1"}}, kNotFound, kNow);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow + KV_GUILTY_TIME - 1ms), passage::none);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow + KV_GUILTY_TIME), passage::alone);
  suspects.closed({{"a", "1"}}, kNotFound, kNow + KV_GUILTY_TIME);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow + KV_GUILTY_TIME), passage::none);
}

TEST(Suspects, AreForgottenAfterTenMinutes) {
  kv_qpid_suspects suspects;
  suspects.closed({{"a", "1"}}, kNotFound, kNow);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow + KV_SUSPECT_TIME - 1ms), passage::alone);
  EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow + KV_SUSPECT_TIME), passage::free);
}

TEST(Suspects, AreNotMadeByAForcedClosing) {
  for (const char* condition : {"amqp:connection:forced", "amqp:link:detach-forced"}) {
    kv_qpid_suspects suspects;
    suspects.closed({{"a", "1"}}, condition, kNow);
    EXPECT_EQ(suspects.passage_of({"a", "1"}, kNow), passage::free) << condition;
  }
}

TEST(Suspects, AreLimitedInNumberAndTheOldestForgottenFirst) {
  kv_qpid_suspects suspects;
  for (std::size_t i = 0; i < KV_SUSPECTS_LIMIT + 10; ++i) {
    suspects.closed({{std::to_string(i), ""}, {std::to_string(i), ""}}, "",
                    kNow + std::chrono::milliseconds(i));
  }
  EXPECT_EQ(suspects.size(), KV_SUSPECTS_LIMIT);
  EXPECT_EQ(suspects.passage_of({"9", ""}, kNow), passage::free);
  EXPECT_EQ(suspects.passage_of({"10", ""}, kNow), passage::alone);
}

}  // namespace
