#include "messaging/kv_qpid_body.h"

#include <gtest/gtest.h>

#include <map>
#include <proton/binary.hpp>
#include <proton/codec/encoder.hpp>
#include <proton/codec/map.hpp>
#include <proton/codec/vector.hpp>
#include <proton/symbol.hpp>
#include <proton/uuid.hpp>
#include <set>
#include <string>
#include <vector>

namespace {

using proton::value;
using values = std::vector<proton::value>;

// A value as it is after a journey over the wire.
value travelled(const value& body) {
  proton::message sent;
  sent.body(body);
  proton::message received;
  received.decode(sent.encode());
  return received.body();
}

struct body_case {
  const char* name;
  value body;
  kv_body_error error;
  std::string json;
  std::string data;
};

class BodyDecode : public testing::TestWithParam<body_case> {};

TEST_P(BodyDecode, GivesWhatTheFormSays) {
  kv_body body;
  EXPECT_EQ(kv_body_decode(travelled(GetParam().body), body), GetParam().error);
  if (GetParam().error == kv_body_error::none) {
    EXPECT_EQ(body.json, GetParam().json);
    EXPECT_EQ(body.data, GetParam().data);
  }
}

const std::string kBytes("\x00\xff\xc3\x28", 4);
using map_body = std::map<std::string, value>;

INSTANTIATE_TEST_SUITE_P(
    Forms, BodyDecode,
    testing::Values(
        body_case{"ListOfJson", values{"{}"}, kv_body_error::none, "{}", ""},
        body_case{"ListWithString", values{"{}", kBytes}, kv_body_error::none, "{}", kBytes},
        body_case{"ListWithBinary", values{"{}", proton::binary(kBytes)}, kv_body_error::none, "{}",
                  kBytes},
        body_case{"ListWithNull", values{"{}", value()}, kv_body_error::none, "{}", ""},
        body_case{"ListWithEmptyData", values{"{}", ""}, kv_body_error::none, "{}", ""},
        body_case{"ListOfThree", values{"{}", "data", 3}, kv_body_error::none, "{}", "data"},
        body_case{"JsonWithNul", values{std::string("{\0}", 3)}, kv_body_error::none,
                  std::string("{\0}", 3), ""},
        body_case{"ListWithNumber", values{"{}", 1}, kv_body_error::wrong_data_type, "", ""},
        body_case{"ListWithList", values{"{}", values{"x"}}, kv_body_error::wrong_data_type, "",
                  ""},
        body_case{"BinaryJson", values{proton::binary("{}")}, kv_body_error::wrong_json_type, "",
                  ""},
        body_case{"SymbolJson", values{proton::symbol("{}")}, kv_body_error::wrong_json_type, "",
                  ""},
        body_case{"NullJson", values{value()}, kv_body_error::wrong_json_type, "", ""},
        body_case{"NumberJson", values{1}, kv_body_error::wrong_json_type, "", ""},
        body_case{"EmptyJson", values{"", "data"}, kv_body_error::empty_json, "", ""},
        body_case{"EmptyList", values{}, kv_body_error::empty_message, "", ""},
        body_case{"Array", std::vector<std::string>{"{}", "data"}, kv_body_error::none, "{}",
                  "data"},
        body_case{"EmptyArray", std::vector<std::string>{}, kv_body_error::empty_message, "", ""},
        body_case{"BinaryArray", std::vector<proton::binary>{proton::binary("{}")},
                  kv_body_error::wrong_json_type, "", ""},
        body_case{"Map", map_body{{"json", "{}"}, {"data", kBytes}}, kv_body_error::none, "{}",
                  kBytes},
        body_case{"MapWithBinary", map_body{{"data", proton::binary("d")}, {"json", "{}"}},
                  kv_body_error::none, "{}", "d"},
        body_case{"MapWithMore", map_body{{"a", values{1, 2}}, {"json", "{}"}, {"z", 1}},
                  kv_body_error::none, "{}", ""},
        body_case{"MapWithoutJson", map_body{{"data", "d"}}, kv_body_error::empty_message, "", ""},
        body_case{"MapWithNumber", map_body{{"json", 1}}, kv_body_error::wrong_json_type, "", ""},
        body_case{"MapWithEmptyJson", map_body{{"json", ""}}, kv_body_error::empty_json, "", ""},
        body_case{"MapWithDataNumber", map_body{{"data", 1}, {"json", "{}"}},
                  kv_body_error::wrong_data_type, "", ""},
        body_case{"EmptyMap", map_body{}, kv_body_error::empty_message, "", ""},
        body_case{"String", value("{}"), kv_body_error::wrong_json_type, "", ""},
        body_case{"Binary", value(proton::binary("{}")), kv_body_error::wrong_json_type, "", ""},
        body_case{"Number", value(1), kv_body_error::wrong_json_type, "", ""},
        body_case{"None", value(), kv_body_error::empty_message, "", ""}),
    [](const auto& row) { return row.param.name; });

TEST(BodyDecode, ADescribedArrayBeginsAfterItsDescriptor) {
  value body;
  proton::codec::encoder encoder(body);
  encoder << proton::codec::start::array(proton::STRING, true) << proton::symbol("label")
          << std::string("{}") << std::string("data") << proton::codec::finish();
  kv_body out;
  EXPECT_EQ(kv_body_decode(travelled(body), out), kv_body_error::none);
  EXPECT_EQ(out.json, "{}");
  EXPECT_EQ(out.data, "data");
}

TEST(BodyDecode, AMapMayHaveSymbolKeysAndOthers) {
  value body;
  proton::codec::encoder encoder(body);
  encoder << proton::codec::start::map() << 7 << std::string("seven") << proton::symbol("json")
          << std::string("{}") << proton::codec::finish();
  kv_body out;
  EXPECT_EQ(kv_body_decode(travelled(body), out), kv_body_error::none);
  EXPECT_EQ(out.json, "{}");
}

// A message as its receiver sees it.
proton::message received(const std::string& json, const std::string& data) {
  proton::message head;
  head.id(proton::message_id("id"));
  head.to("queue");
  head.reply_to("replies");
  head.ttl(proton::duration(5000));
  proton::message message;
  message.decode(kv_encode_message(head, json, data));
  return message;
}

TEST(EncodeMessage, BodyIsAListOfStrings) {
  const proton::message message = received("{}", kBytes);
  EXPECT_EQ(message.body().type(), proton::LIST);
  const auto elements = proton::get<values>(message.body());
  ASSERT_EQ(elements.size(), 2U);
  EXPECT_EQ(elements[0].type(), proton::STRING);
  EXPECT_EQ(elements[1].type(), proton::STRING);
  EXPECT_EQ(proton::get<std::string>(elements[0]), "{}");
  EXPECT_EQ(proton::get<std::string>(elements[1]), kBytes);
}

TEST(EncodeMessage, KeepsTheHead) {
  const proton::message message = received("{}", "");
  EXPECT_EQ(message.id(), proton::message_id("id"));
  EXPECT_EQ(message.to(), "queue");
  EXPECT_EQ(message.reply_to(), "replies");
  EXPECT_EQ(message.ttl(), proton::duration(5000));
}

TEST(EncodeMessage, DataOfNoBytesIsLeftOut) {
  EXPECT_EQ(proton::get<values>(received("{}", "").body()).size(), 1U);
}

TEST(EncodeMessage, IsTakenApartAgainWhateverItsLengths) {
  for (const std::size_t json_size : {1UL, 31UL, 32UL, 64UL, 255UL, 256UL, 1024UL, 65'536UL}) {
    for (const std::size_t data_size : {1UL, 256UL, 4096UL, 1UL << 20}) {
      const std::string json(json_size, 'j');
      const std::string data(data_size, '\xd8');
      kv_body body;
      ASSERT_EQ(kv_body_decode(received(json, data).body(), body), kv_body_error::none);
      EXPECT_TRUE(body.json == json && body.data == data) << json_size << ", " << data_size;
    }
  }
}

TEST(EncodeMessage, NeedsNoMoreRoomThanItsBytes) {
  const std::string data(3 << 20, 'x');
  const std::vector<char> bytes = kv_encode_message(proton::message(), "{}", data);
  EXPECT_LT(bytes.capacity(), data.size() + 1024);
}

TEST(BodyErrorTexts, AreThoseOfTheServiceSide) {
  EXPECT_STREQ(kv_body_error_text(kv_body_error::empty_message), "Empty message");
  EXPECT_STREQ(kv_body_error_text(kv_body_error::empty_json), "Empty json in message");
  EXPECT_STREQ(kv_body_error_text(kv_body_error::wrong_json_type), "Invalid data type in message");
  EXPECT_STREQ(kv_body_error_text(kv_body_error::wrong_data_type),
               "Invalid data type in message (element 1)");
}

TEST(MessageIds, KeysTellIdsApart) {
  const proton::uuid uuid = proton::uuid::random();
  const std::vector<proton::message_id> ids{uuid,
                                            uuid.str(),
                                            std::uint64_t{7},
                                            std::string("7"),
                                            proton::binary("7"),
                                            proton::uuid::random()};
  std::set<std::string> keys;
  for (const auto& id : ids) {
    keys.insert(kv_message_id_key(id));
    EXPECT_EQ(kv_message_id_key(id), kv_message_id_key(proton::message_id(id)));
  }
  EXPECT_EQ(keys.size(), ids.size());
  EXPECT_EQ(kv_message_id_key(proton::message_id()), "");
}

TEST(MessageIds, NewOnesAreRandomUuidsOfVersionFour) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = proton::to_string(kv_new_message_id());
    ASSERT_EQ(text.size(), 36U);
    EXPECT_EQ(text[14], '4');
    EXPECT_NE(std::string("89ab").find(text[19]), std::string::npos);
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 1000U);
}

}  // namespace
