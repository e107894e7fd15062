#include "logging/kv_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "common/kv_json.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

std::vector<std::string> keys_of(json_object* object) {
  std::vector<std::string> keys;
  json_object_object_foreach(object, key, value) {
    static_cast<void>(value);
    keys.emplace_back(key);
  }
  return keys;
}

std::string text_at(json_object* object, const char* key) {
  std::string text;
  return kv_json_get_text(object, key, text) == kv_json_presence::present ? text : "<none>";
}

json_object* member(json_object* object, const char* key) {
  json_object* value = nullptr;
  json_object_object_get_ex(object, key, &value);
  return value;
}

class event_log : public testing::Test {
 protected:
  void SetUp() override {
    queue_.reset(kv_pqueue_open(folder_.path().c_str(), "q", 100, 1000000, O_CREAT, 1));
    ASSERT_TRUE(queue_);
  }
  // The one entry of a type, as queued.
  std::string queued(char type) {
    const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue_.get(), type)};
    return entry ? std::string(reinterpret_cast<char*>(entry->data), entry->size) : "";
  }
  kv_json_ptr queued_json(char type) {
    return kv_json_ptr{json_tokener_parse(queued(type).c_str())};
  }

  temp_dir folder_;
  kv_pqueue_ptr queue_;
};

kv_json_ptr message_data(const char* text) {
  kv_json_ptr data{json_object_new_object()};
  json_object_object_add(data.get(), "Message", json_object_new_string(text));
  return data;
}

}  // namespace

TEST_F(event_log, EventIdsAreDistinctUuids) {
  const kv_text_ptr first{kv_log_generate_eventID()};
  const kv_text_ptr second{kv_log_generate_eventID()};
  ASSERT_TRUE(first && second);
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(first.get(), uuid)) << first.get();
  EXPECT_STRNE(first.get(), second.get());
}

TEST_F(event_log, TheBaseMessageHasItsKeysInOrder) {
  const kv_json_ptr message{kv_log_create_message_with_eventID("id-1")};
  ASSERT_TRUE(message);
  EXPECT_THAT(keys_of(message.get()), ElementsAre("LogVersion", "Timestamp", "Timestamp_epoch",
                                                  "Component", "Hostname", "EventID"));
  EXPECT_EQ(json_object_get_int(member(message.get(), "LogVersion")), 1);
  EXPECT_TRUE(std::regex_match(text_at(message.get(), "Timestamp"),
                               std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d")));
  EXPECT_NEAR(static_cast<double>(json_object_get_int64(member(message.get(), "Timestamp_epoch"))),
              static_cast<double>(std::time(nullptr)), 2.0);
  EXPECT_EQ(text_at(message.get(), "Component"), "kv-av-activecontent");
  EXPECT_EQ(text_at(message.get(), "EventID"), "id-1");
  EXPECT_NE(text_at(message.get(), "Hostname"), "<none>");
}

TEST_F(event_log, AMessageNeedsAnEventId) {
  EXPECT_EQ(kv_log_create_message_with_eventID(nullptr), nullptr);
  const kv_json_ptr message{kv_log_create_message()};
  EXPECT_EQ(text_at(message.get(), "EventID").size(), 36u);
}

TEST_F(event_log, ALogSectionCarriesDataAndRealm) {
  for (const char* realm : {static_cast<const char*>(nullptr), "", "r1"}) {
    const kv_json_ptr message{kv_log_create_message()};
    ASSERT_EQ(
        kv_log_add_log_section(message.get(), "StatusLog", realm, message_data("up").release()), 0);
    EXPECT_EQ(text_at(member(member(message.get(), "StatusLog"), "LogData"), "Message"), "up");
    EXPECT_EQ(text_at(message.get(), "realmID"),
              realm != nullptr && *realm != '\0' ? realm : "<none>");
  }
}

TEST_F(event_log, ALogSectionNeedsMessageAndData) {
  const trace_capture trace;
  const kv_json_ptr message{kv_log_create_message()};
  EXPECT_EQ(kv_log_add_log_section(nullptr, "StatusLog", "r", message_data("x").release()), -1);
  EXPECT_EQ(kv_log_add_log_section(message.get(), "StatusLog", "r", nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameters"), 2);
}

TEST_F(event_log, AScanLogSectionNamesItsPath) {
  const kv_json_ptr message{kv_log_create_message()};
  ASSERT_EQ(kv_log_add_scanlog_section(message.get(), "/a/b", "r", message_data("x").release()), 0);
  EXPECT_EQ(text_at(message.get(), "realmID"), "r");
  json_object* section = member(message.get(), "ScanLog");
  EXPECT_THAT(keys_of(section), ElementsAre("ScanLogPath", "LogData"));
  EXPECT_EQ(text_at(section, "ScanLogPath"), "/a/b");
  EXPECT_EQ(kv_log_add_scanlog_section(nullptr, "/a", "r", message_data("x").release()), -1);
}

TEST_F(event_log, AMessageIsQueuedPrettyPrinted) {
  const trace_capture trace;
  const kv_json_ptr message{kv_log_create_message_with_eventID("id-1")};
  ASSERT_EQ(kv_log_enqueue(queue_.get(), 'L', message.get()), 0);
  EXPECT_EQ(queued('L'), json_object_to_json_string_ext(message.get(), JSON_C_TO_STRING_PRETTY));
  EXPECT_NE(queued('L').find("{\n  \"LogVersion\":1,\n"), std::string::npos);
  EXPECT_EQ(trace.count("TRACE", "Enqueuing {"), 1);
}

TEST_F(event_log, WhatCannotBeQueuedIsReported) {
  const kv_json_ptr message{kv_log_create_message()};
  EXPECT_EQ(kv_log_enqueue(queue_.get(), 'L', nullptr), -1);
  EXPECT_EQ(kv_log_enqueue(nullptr, 'L', message.get()), -1);
  queue_->max_entries = 0;
  const trace_capture trace;
  EXPECT_EQ(kv_log_enqueue(queue_.get(), 'E', message.get()), -1);
  EXPECT_EQ(kv_log_enqueue(queue_.get(), 'L', message.get()), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to persist event message in queue: "), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to persist log message in queue: "), 1);
}

TEST_F(event_log, APlainEventCarriesItsSectionAsAnObject) {
  ASSERT_EQ(kv_log_send_event(queue_.get(), 3010, "r", "s", "f", "e", "b", "m", nullptr), 0);
  const kv_json_ptr event = queued_json('E');
  ASSERT_TRUE(event);
  EXPECT_THAT(keys_of(event.get()),
              ElementsAre("LogVersion", "Timestamp", "Timestamp_epoch", "Component", "Hostname",
                          "EventID", "Command", "realmID", "SID", "Event"));
  EXPECT_EQ(json_object_get_int(member(event.get(), "Command")), 501);
  json_object* section = member(event.get(), "Event");
  EXPECT_THAT(keys_of(section),
              ElementsAre("Type", "Filename", "Error", "Blocking-Reason", "Event-Message"));
  EXPECT_EQ(json_object_get_int(member(section, "Type")), 3010);
  EXPECT_EQ(text_at(section, "Event-Message"), "m");
}

TEST_F(event_log, TextsThatAreNotGivenAreLeftOut) {
  ASSERT_EQ(kv_log_send_event(queue_.get(), 3030, nullptr, nullptr, nullptr, nullptr, nullptr,
                              "bye", nullptr),
            0);
  const kv_json_ptr event = queued_json('E');
  EXPECT_EQ(text_at(event.get(), "realmID"), "<none>");
  EXPECT_EQ(text_at(event.get(), "SID"), "<none>");
  EXPECT_THAT(keys_of(member(event.get(), "Event")), ElementsAre("Type", "Event-Message"));
}

TEST_F(event_log, AnEncryptedEventCarriesNonceAndBase64) {
  const kv_secretbox_key_ptr key{kv_secretbox_generate_key("secret")};
  ASSERT_TRUE(key);
  ASSERT_EQ(kv_log_send_event(queue_.get(), 3010, nullptr, nullptr, nullptr, nullptr, nullptr, "m",
                              key.get()),
            0);
  const kv_json_ptr event = queued_json('E');
  const std::vector<std::string> keys = keys_of(event.get());
  ASSERT_GE(keys.size(), 2u);
  EXPECT_EQ(keys[keys.size() - 2], "Nonce");
  EXPECT_EQ(keys.back(), "Event");
  EXPECT_EQ(text_at(event.get(), "Nonce"), key->nonce_hex);

  const std::string base64 = text_at(event.get(), "Event");
  std::vector<unsigned char> cipher(base64.size());
  std::size_t length = 0;
  ASSERT_EQ(sodium_base642bin(cipher.data(), cipher.size(), base64.data(), base64.size(), nullptr,
                              &length, nullptr, sodium_base64_VARIANT_ORIGINAL),
            0);
  unsigned char* plain = nullptr;
  std::size_t plain_length = 0;
  ASSERT_EQ(kv_secretbox_decrypt_buffer(cipher.data(), length, key->key, key->nonce, &plain,
                                        &plain_length),
            0);
  const kv_malloc_ptr<unsigned char> guard{plain};
  EXPECT_EQ(std::string(reinterpret_cast<char*>(plain), plain_length),
            "{\"Type\":3010,\"Event-Message\":\"m\"}")
      << "the section is printed compactly";
}

TEST_F(event_log, AFailedEncryptionQueuesNothing) {
  const trace_capture trace;
  kv_secretbox_key unusable{};
  EXPECT_EQ(kv_log_send_event(queue_.get(), 3010, nullptr, nullptr, nullptr, nullptr, nullptr, "m",
                              &unusable),
            -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to encrypt event message"), 1);
  EXPECT_EQ(queued('E'), "");
}

TEST_F(event_log, TheEpoLogHasItsOwnKinds) {
  const kv_json_ptr log{kv_log_create_epolog_json(7, "f", "n", "c", "t", "a", "l", "d")};
  EXPECT_THAT(keys_of(log.get()), ElementsAre("LogType", "Timestamp", "EventID", "Filename",
                                              "Threat-Name", "Threat-Category", "Threat-Type",
                                              "Action-taken", "Lib-Version", "DAT-Version"));
  EXPECT_EQ(text_at(log.get(), "LogType"), "EPOLog");
  EXPECT_EQ(json_object_get_type(member(log.get(), "Timestamp")), json_type_int);
  EXPECT_EQ(json_object_get_int(member(log.get(), "EventID")), 7);
}

TEST_F(event_log, TheDelimitedEventIdTagsTraceLines) {
  const kv_json_ptr message{kv_log_create_message_with_eventID("id-1")};
  const kv_json_ptr empty{json_object_new_object()};
  const kv_text_ptr tagged{kv_log_create_delimited_eventID_string("<<", message.get())};
  const kv_text_ptr defaulted{kv_log_create_delimited_eventID_string("", message.get())};
  const kv_text_ptr missing{kv_log_create_delimited_eventID_string("<<", empty.get())};
  EXPECT_STREQ(tagged.get(), "<<id-1");
  EXPECT_STREQ(defaulted.get(), "EventID:id-1");
  EXPECT_STREQ(missing.get(), "<<not set");
}
