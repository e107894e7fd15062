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

TEST(ReplyReturnCode, OnlyAnIntegerIsACode) {
  struct row {
    const char* reply;
    bool found;
    std::int32_t code;
  };
  for (const auto& [reply, found, code] : {
           row{R"({"ReturnCode": 0})", true, 0},
           row{R"({"ReturnCode": -202})", true, -202},
           row{R"({"ReturnCode": -9000000000})", true, INT32_MIN},
           row{R"({"ReturnCode": "0"})", false, 7},
           row{R"({"ReturnCode": "clean"})", false, 7},
           row{R"({"ReturnCode": null})", false, 7},
           row{R"({"ReturnCode": 0.5})", false, 7},
           row{R"({"ReturnCode": false})", false, 7},
           row{R"({})", false, 7},
           row{R"([0])", false, 7},
       }) {
    const kv_json_ptr parsed{json_tokener_parse(reply)};
    std::int32_t read = 7;
    EXPECT_EQ(kv_reply_get_return_code(parsed.get(), read), found) << reply;
    EXPECT_EQ(read, code) << reply;
  }
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
