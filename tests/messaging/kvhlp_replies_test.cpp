#include "messaging/kvhlp_replies.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cstdint>
#include <limits>

#include "common/kv_guard.h"

namespace {

TEST(ReplySetters, OkIsReturnCodeZero) {
  char* text = nullptr;
  EXPECT_EQ(kv_reply_set_OK(&text), 0);
  const kv_text_ptr guard{text};
  EXPECT_STREQ(text, R"({"ReturnCode": 0})");
}

TEST(ReplySetters, ReturnCodesKeepTheirSign) {
  const struct {
    std::int32_t code;
    const char* text;
  } rows[] = {
      {0, R"({"ReturnCode": 0})"},
      {-202, R"({"ReturnCode": -202})"},
      {std::numeric_limits<std::int32_t>::min(), R"({"ReturnCode": -2147483648})"},
      {std::numeric_limits<std::int32_t>::max(), R"({"ReturnCode": 2147483647})"},
  };
  for (const auto& row : rows) {
    char* text = nullptr;
    EXPECT_EQ(kv_reply_set_return_code(&text, row.code), 0);
    const kv_text_ptr guard{text};
    EXPECT_STREQ(text, row.text);
  }
}

TEST(ReplySetters, AnErrorCarriesItsText) {
  char* text = nullptr;
  EXPECT_EQ(kv_reply_set_ERROR(&text, -1000, "Failed to handle request"), 0);
  const kv_text_ptr guard{text};
  EXPECT_STREQ(text, R"({"ReturnCode": -1000, "Error": "Failed to handle request"})");
}

TEST(ReplySetters, AQuoteInTheTextIsNotEscaped) {
  char* text = nullptr;
  EXPECT_EQ(kv_reply_set_ERROR(&text, -1, R"(a " b)"), 0);
  const kv_text_ptr guard{text};
  EXPECT_STREQ(text, R"({"ReturnCode": -1, "Error": "a " b"})");
  const kv_json_ptr parsed{json_tokener_parse(text)};
  EXPECT_EQ(parsed, nullptr);
}

TEST(ReplySetters, ATextThatIsAlreadyThereIsNotFreed) {
  char before[] = "before";
  char* text = before;
  EXPECT_EQ(kv_reply_set_OK(&text), 0);
  const kv_text_ptr guard{text};
  EXPECT_NE(text, before);
  EXPECT_STREQ(before, "before");
}

}  // namespace
