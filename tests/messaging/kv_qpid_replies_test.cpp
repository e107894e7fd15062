#include "messaging/kv_qpid_replies.h"

#include <gtest/gtest.h>

#include <string>

#include "support/trace_capture.h"

namespace {

constexpr std::uint64_t kConnection = 3;
constexpr std::int64_t kNow = 1'000'000;

std::string key_of(const std::string& id) {
  return kv_message_id_key(proton::message_id(id));
}

kv_received_message reply(const std::string& id, std::int64_t arrival_ms = kNow,
                          std::uint64_t connection = kConnection) {
  kv_received_message message;
  message.arrival_ms = arrival_ms;
  if (!id.empty()) {
    message.id = proton::message_id(id);
  }
  message.key = kv_message_id_key(message.id);
  message.body.json = id;
  message.generation = connection;
  return message;
}

class MatchReply : public testing::Test {
 protected:
  // The JSON of the matched reply, or nothing.
  std::string match(const std::string& wanted, std::int64_t now_ms = kNow) {
    const auto found = buffer.match_reply(key_of(wanted), now_ms, kConnection, credits);
    return found ? found->body.json : "";
  }

  kv_reply_buffer buffer;
  std::uint32_t credits = 0;
};

TEST_F(MatchReply, FindsNothingInAnEmptyBuffer) {
  EXPECT_EQ(match("a"), "");
  EXPECT_EQ(credits, 0U);
}

TEST_F(MatchReply, TakesTheWantedFrontAndGivesACredit) {
  const trace_capture trace;
  buffer.add(reply("a"));
  EXPECT_EQ(match("a"), "a");
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(credits, 1U);
  EXPECT_EQ(trace.count("DEBUG", "Matched reply with correlation_id 'a'"), 1);
}

TEST_F(MatchReply, LeavesAFreshReplyOfAnotherAtTheFront) {
  buffer.add(reply("other"));
  EXPECT_EQ(match("a"), "");
  EXPECT_EQ(buffer.size(), 1U);
  EXPECT_EQ(credits, 0U);
  EXPECT_EQ(match("other"), "other");
}

TEST_F(MatchReply, FindsItsOwnBehindOthers) {
  buffer.add(reply("first"));
  buffer.add(reply("second"));
  buffer.add(reply("a"));
  EXPECT_EQ(match("a"), "a");
  EXPECT_EQ(match("first"), "first");
  EXPECT_EQ(match("second"), "second");
  EXPECT_EQ(credits, 3U);
}

TEST_F(MatchReply, DropsAFrontWithoutCorrelationIdAndEndsThere) {
  const trace_capture trace;
  buffer.add(reply(""));
  buffer.add(reply("a"));
  EXPECT_EQ(match("a"), "");
  EXPECT_EQ(credits, 1U);
  EXPECT_EQ(trace.count("ERROR", "Removing reply without correlation_id"), 1);
  EXPECT_EQ(match("a"), "a");
}

TEST_F(MatchReply, DropsALateReplyAndForgetsItsId) {
  const trace_capture trace;
  EXPECT_EQ(buffer.add_expired(key_of("late")), 1U);
  buffer.add(reply("late"));
  buffer.add(reply("a"));
  EXPECT_EQ(match("a"), "a");
  EXPECT_EQ(buffer.expired_size(), 0U);
  EXPECT_EQ(credits, 2U);
  EXPECT_EQ(trace.count("INFO", "Removing expired reply with correlation_id 'late'"), 1);
}

TEST_F(MatchReply, DropsAnUnclaimedReplyOnceItIsOlderThanFiveSeconds) {
  const trace_capture trace;
  buffer.add(reply("old", kNow - 5000));
  EXPECT_EQ(match("a"), "");
  EXPECT_EQ(buffer.size(), 1U) << "not older yet";
  EXPECT_EQ(buffer.front_limit_ms(), kNow + 1);
  EXPECT_EQ(match("a", kNow + 1), "");
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(credits, 1U);
  EXPECT_EQ(trace.count("INFO", "Removing expired reply with correlation_id 'old' and timestamp '" +
                                    std::to_string(kNow - 5000) + "'"),
            1);
}

TEST_F(MatchReply, AgeCountsForTheWantedReplyToo) {
  buffer.add(reply("a", kNow - 5001));
  EXPECT_EQ(match("a"), "");
  EXPECT_TRUE(buffer.empty());
}

TEST_F(MatchReply, ClearsAWholeRowOfStaleFronts) {
  buffer.add_expired(key_of("late"));
  buffer.add(reply("old", kNow - 6000));
  buffer.add(reply("late"));
  buffer.add(reply("older", kNow - 7000));
  buffer.add(reply("a"));
  EXPECT_EQ(match("a"), "a");
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(credits, 4U);
}

TEST_F(MatchReply, GivesNoCreditForWhatCameOnALostConnection) {
  buffer.add(reply("old", kNow - 6000, kConnection - 1));
  buffer.add(reply("a", kNow, kConnection - 1));
  EXPECT_EQ(match("a"), "a");
  EXPECT_EQ(credits, 0U);
}

TEST_F(MatchReply, KeepsExpectedRepliesAndTheNewestOfTheUnclaimedOnes) {
  const trace_capture trace;
  buffer.add_expired(key_of("late"));
  for (const char* id : {"late", "wanted", "", "twice", "twice", "newest"}) {
    buffer.add(reply(id));
  }
  buffer.drop_unclaimed({key_of("wanted")}, 5, kConnection, credits);
  EXPECT_EQ(buffer.size(), 6U);
  buffer.drop_unclaimed({key_of("wanted")}, 2, kConnection, credits);
  EXPECT_EQ(credits, 3U);
  EXPECT_EQ(buffer.expired_size(), 0U);
  EXPECT_EQ(trace.count("INFO", "Removing unclaimed reply with correlation_id 'late'"), 1);
  EXPECT_EQ(match("wanted"), "wanted");
  EXPECT_EQ(match("twice"), "twice");
  EXPECT_EQ(match("twice"), "");
  EXPECT_EQ(match("newest"), "newest");
  EXPECT_TRUE(buffer.empty());
}

TEST_F(MatchReply, AnUnclaimedReplyOfALostConnectionGivesNoCredit) {
  buffer.add(reply("old", kNow, kConnection - 1));
  buffer.drop_unclaimed({}, 0, kConnection, credits);
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(credits, 0U);
}

TEST_F(MatchReply, TheExpiredListHasNoLimitAndNoDoubles) {
  for (int i = 0; i < 10'000; ++i) {
    buffer.add_expired(key_of(std::to_string(i)));
  }
  EXPECT_EQ(buffer.add_expired(key_of("0")), 10'000U);
}

}  // namespace
