#include "common/kv_json.h"

#include <gtest/gtest.h>

#include <string>

#include "support/trace_capture.h"

namespace {

kv_json_ptr parse(std::string_view text) {
  return kv_json_parse(text, "function", "unit", 1);
}

std::string nested(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') +
         std::string(static_cast<std::size_t>(depth), ']');
}

TEST(JsonParse, TakesWholeTextsOfEveryType) {
  for (const char* const text : {"{}", "[]", "1", "-1.5e3", "\"x\"", "true", " {\"a\":1} "}) {
    EXPECT_NE(parse(text), nullptr) << text;
  }
}

TEST(JsonParse, TextNullIsNoFailure) {
  const trace_capture trace;
  for (const char* const text : {"null", " null\n"}) {
    kv_json_ptr object = parse("{}");
    EXPECT_TRUE(kv_json_parse(text, object, "function", "unit", 1)) << text;
    EXPECT_EQ(object, nullptr) << text;
    EXPECT_EQ(parse(text), nullptr) << text;
  }
  EXPECT_EQ(trace.count("Failed to parse JSON"), 0);
  kv_json_ptr object = parse("{}");
  EXPECT_FALSE(kv_json_parse("nul", object, "function", "unit", 1));
  EXPECT_EQ(object, nullptr);
}

TEST(JsonParse, RefusesWhatIsNoneAndLogsUnderTheCallersName) {
  const trace_capture trace;
  int refused = 0;
  for (const char* const text :
       {"", " ", "{", "{\"a\":", "[1,2", "\"x", "tru", "xyz", "{\"a\" 1}", "{'a':}", "\xff"}) {
    EXPECT_EQ(parse(text), nullptr) << text;
    ++refused;
  }
  EXPECT_EQ(trace.count("ERROR", ":function(): Failed to parse JSON. Errorcode: "), refused);
}

TEST(JsonParse, CutAtAnyByteIsRefused) {
  const std::string text = R"({"a":[1,"two",{"b":null}],"c":"\u00e4"})";
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_EQ(parse(text.substr(0, length)), nullptr) << length;
  }
  EXPECT_NE(parse(text), nullptr);
}

TEST(JsonParse, NothingOfOneTextIsLeftForTheNext) {
  const std::string long_text = "\"" + std::string(200'000, 'x');
  for (const std::string& text : {std::string(R"({"a":)"), std::string("[1,2"),
                                  std::string("\"abc"), std::string("{\"a\" 1}"), std::string("1"),
                                  std::string("null"), nested(100), long_text, long_text + "\""}) {
    static_cast<void>(parse(text));
    const kv_json_ptr next = parse(R"({"b":2})");
    ASSERT_NE(next, nullptr) << text.substr(0, 20);
    EXPECT_STREQ(json_object_to_json_string_ext(next.get(), KV_JSON_COMPACT), R"({"b":2})");
  }
}

TEST(JsonParse, NestingEndsAtTheLimit) {
  EXPECT_NE(parse(nested(KV_JSON_MAX_DEPTH - 1)), nullptr);
  EXPECT_EQ(parse(nested(KV_JSON_MAX_DEPTH + 1)), nullptr);
  EXPECT_EQ(parse(nested(1000000)), nullptr);
  EXPECT_EQ(parse(std::string(1000000, '[')), nullptr);
}

TEST(JsonParse, ReadsNoByteBehindTheText) {
  const std::string text = "12345";
  const kv_json_ptr number = parse(std::string_view(text).substr(0, 2));
  ASSERT_NE(number, nullptr);
  EXPECT_EQ(json_object_get_int(number.get()), 12);
}

class JsonGet : public testing::Test {
 protected:
  JsonGet()
      : object_(parse(R"({"text":"x","empty":"","null":null,"int":42,"double":2.9,"bool":true,
                          "number":"17","word":"abc","big":9000000000,"array":[1],
                          "object":{"k":1}})")) {}
  kv_json_ptr object_;
};

TEST_F(JsonGet, TextsAndOtherTypesAsTexts) {
  struct {
    const char* key;
    kv_json_presence presence;
    const char* value;
  } const rows[] = {
      {"text", kv_json_presence::present, "x"},     {"missing", kv_json_presence::absent, "old"},
      {"empty", kv_json_presence::empty, "old"},    {"null", kv_json_presence::empty, "old"},
      {"int", kv_json_presence::present, "42"},     {"bool", kv_json_presence::present, "true"},
      {"array", kv_json_presence::present, "[ 1 ]"}};
  for (const auto& row : rows) {
    std::string out = "old";
    EXPECT_EQ(kv_json_get_text(object_.get(), row.key, out), row.presence) << row.key;
    EXPECT_EQ(out, row.value) << row.key;
  }
}

TEST_F(JsonGet, NumbersAsTheLibraryConvertsThem) {
  struct {
    const char* key;
    bool found;
    std::int32_t narrow;
    std::int64_t wide;
  } const rows[] = {{"int", true, 42, 42}, {"missing", false, 7, 7},
                    {"null", true, 0, 0},  {"double", true, 2, 2},
                    {"bool", true, 1, 1},  {"number", true, 17, 17},
                    {"word", true, 0, 0},  {"big", true, INT32_MAX, 9000000000},
                    {"array", true, 0, 0}, {"object", true, 0, 0}};
  for (const auto& row : rows) {
    std::int32_t narrow = 7;
    std::int64_t wide = 7;
    EXPECT_EQ(kv_json_get_int(object_.get(), row.key, narrow), row.found) << row.key;
    EXPECT_EQ(kv_json_get_int64(object_.get(), row.key, wide), row.found) << row.key;
    EXPECT_EQ(narrow, row.narrow) << row.key;
    EXPECT_EQ(wide, row.wide) << row.key;
  }
}

TEST_F(JsonGet, WhatIsNoObjectHasNoKeys) {
  for (const char* const text : {"[1]", "1", "\"x\"", "true"}) {
    const kv_json_ptr other = parse(text);
    std::string out;
    std::int32_t number = 0;
    EXPECT_EQ(kv_json_get_text(other.get(), "k", out), kv_json_presence::absent) << text;
    EXPECT_FALSE(kv_json_get_int(other.get(), "k", number)) << text;
  }
  std::string out;
  EXPECT_EQ(kv_json_get_text(nullptr, "k", out), kv_json_presence::absent);
}

TEST(JsonPresence, MessagesNameTheKey) {
  EXPECT_EQ(kv_json_presence_message(kv_json_presence::absent, "Key"),
            "Failed to read Key from JSON");
  EXPECT_EQ(kv_json_presence_message(kv_json_presence::empty, "Key"),
            "Key Key found, but value is empty");
  EXPECT_EQ(kv_json_presence_message(kv_json_presence::present, "Key"), "");
}

TEST(JsonPrint, FlagsShapeTheText) {
  const kv_json_ptr object = parse(R"({"a":"x/y","b":[1]})");
  EXPECT_STREQ(kv_json_print(object.get(), KV_JSON_COMPACT).get(), R"({"a":"x\/y","b":[1]})");
  EXPECT_STREQ(kv_json_print(object.get(), KV_JSON_SPACED).get(), R"({ "a": "x\/y", "b": [ 1 ] })");
  EXPECT_NE(std::string(kv_json_print(object.get(), KV_JSON_PRETTY_PLAIN_SLASH).get())
                .find("\"a\":\"x/y\""),
            std::string::npos);
}

}  // namespace
