#include "messaging/kv_request_reply_types.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

TEST(RequestReplyTypes, NewRecordsAreZero) {
  kv_message_t* message = kv_message_new();
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(message->json, nullptr);
  EXPECT_EQ(message->data, nullptr);
  EXPECT_EQ(message->data_size, 0U);
  kv_message_free_p(message);

  kv_const_message_t* lent = kv_const_message_new();
  ASSERT_NE(lent, nullptr);
  EXPECT_EQ(lent->json, nullptr);
  EXPECT_EQ(lent->data, nullptr);
  EXPECT_EQ(lent->data_size, 0U);
  std::free(lent);
}

TEST(RequestReplyTypes, InitClearsEveryMemberAndTakesNull) {
  char text[] = "{}";
  kv_message_t message{.json = text, .data = text, .data_size = 3};
  kv_message_init(&message);
  EXPECT_EQ(message.json, nullptr);
  EXPECT_EQ(message.data, nullptr);
  EXPECT_EQ(message.data_size, 0U);
  kv_message_init(nullptr);

  kv_const_message_t lent{.json = text, .data = text, .data_size = 3};
  kv_const_message_init(&lent);
  EXPECT_EQ(lent.json, nullptr);
  EXPECT_EQ(lent.data, nullptr);
  EXPECT_EQ(lent.data_size, 0U);
  kv_const_message_init(nullptr);
}

TEST(RequestReplyTypes, FreeingTheMembersTwiceIsHarmless) {
  kv_message_t message{.json = strdup("{}"), .data = std::malloc(3), .data_size = 3};
  kv_message_free(&message);
  EXPECT_EQ(message.json, nullptr);
  EXPECT_EQ(message.data, nullptr);
  kv_message_free(&message);
}

TEST(RequestReplyTypes, EveryFreeTakesNull) {
  kv_message_free(nullptr);
  kv_message_free_p(nullptr);
  kv_request_reply_free(nullptr);
  kv_request_reply_free_p(nullptr);
  kv_request_reply_free_structs(nullptr);
  kv_const_request_reply_free_structs(nullptr);
}

TEST(RequestReplyTypes, APairOwnsBothMessages) {
  kv_request_reply_t* pair = kv_request_reply_new();
  ASSERT_NE(pair, nullptr);
  ASSERT_NE(pair->request, nullptr);
  ASSERT_NE(pair->reply, nullptr);
  pair->request->json = strdup("{}");
  pair->reply->json = strdup("{}");
  kv_request_reply_free(pair);
  EXPECT_EQ(pair->request, nullptr);
  EXPECT_EQ(pair->reply, nullptr);
  kv_request_reply_free_p(pair);
}

TEST(RequestReplyTypes, APairWithoutMessagesIsFreedAllTheSame) {
  auto* pair = static_cast<kv_request_reply_t*>(std::calloc(1, sizeof(kv_request_reply_t)));
  kv_request_reply_free_p(pair);
  auto* lent =
      static_cast<kv_const_request_reply_t*>(std::calloc(1, sizeof(kv_const_request_reply_t)));
  kv_const_request_reply_free_structs(lent);
}

TEST(RequestReplyTypes, FreeingTheRecordsLeavesTheTexts) {
  char* request = strdup("request");
  char* reply = strdup("reply");
  kv_request_reply_t* pair = kv_request_reply_new();
  pair->request->json = request;
  pair->reply->json = reply;
  kv_request_reply_free_structs(pair);
  EXPECT_STREQ(request, "request");
  EXPECT_STREQ(reply, "reply");
  std::free(request);
  std::free(reply);
}

TEST(RequestReplyTypes, AConstPairBorrowsItsRequestAndOwnsItsReply) {
  const char* lent = "request";
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  ASSERT_NE(pair, nullptr);
  pair->request->json = lent;
  pair->reply->json = strdup("reply");  // freed with the guard: seen by the leak checker
  EXPECT_STREQ(pair->request->json, "request");
}

}  // namespace
