#include "worker/kv_worker_messages.h"

#include <gtest/gtest.h>

#include "common/kv_json.h"

namespace {

TEST(worker_messages, first_and_repeated_registration_differ_in_one_blank) {
  EXPECT_EQ(kv_register_text(kv_registration::first, "w_h_1", 1, "s3cret"),
            "{ \"Command\": 200 , \"worker-name\": \"w_h_1\", \"service-name\": "
            "\"kv-av-activecontent\", \"Primary\": 1, \"Secret\": \"s3cret\"}");
  EXPECT_EQ(kv_register_text(kv_registration::repeated, "w_h_1", 0, "s3cret"),
            "{ \"Command\": 200 ,\"worker-name\": \"w_h_1\", \"service-name\": "
            "\"kv-av-activecontent\", \"Primary\": 0, \"Secret\": \"s3cret\"}");
}

TEST(worker_messages, ready_and_shutdown_carry_the_given_secret) {
  EXPECT_EQ(kv_ready_text("given", "w_h_1", "own"),
            "{ \"Command\" : 4 , \"Secret\":\"given\", \"Shutdown\":\"w_h_1\", "
            "\"Shutdown-Secret\":\"own\"}");
  EXPECT_EQ(kv_shutdown_text("given"), "{ \"Command\" : 9 , \"Secret\":\"given\"}");
}

TEST(worker_messages, a_worker_without_a_secret_sends_an_empty_one) {
  EXPECT_EQ(kv_shutdown_text(nullptr), "{ \"Command\" : 9 , \"Secret\":\"\"}");
  EXPECT_EQ(
      kv_ready_text(nullptr, "w", "own"),
      "{ \"Command\" : 4 , \"Secret\":\"\", \"Shutdown\":\"w\", \"Shutdown-Secret\":\"own\"}");
}

TEST(worker_messages, notices_carry_their_code_and_role) {
  EXPECT_EQ(kv_notice_text(201, "w_h_1", 0),
            "{ \"Command\" : 201 , \"worker-name\" : \"w_h_1\", \"service-name\" : "
            "\"kv-av-activecontent\", \"Primary\" : 0 }");
  EXPECT_EQ(kv_notice_text(202, "w_h_1", 1),
            "{ \"Command\" : 202 , \"worker-name\" : \"w_h_1\", \"service-name\" : "
            "\"kv-av-activecontent\", \"Primary\" : 1 }");
}

TEST(worker_messages, values_go_in_as_they_stand) {
  EXPECT_EQ(kv_shutdown_text("a\"b"), "{ \"Command\" : 9 , \"Secret\":\"a\"b\"}");
}

TEST(worker_messages, every_text_is_json) {
  for (const std::string& text :
       {kv_register_text(kv_registration::first, "w", 0, "s"),
        kv_register_text(kv_registration::repeated, "w", 0, "s"), kv_ready_text("s", "w", "o"),
        kv_shutdown_text("s"), kv_notice_text(201, "w", 0)}) {
    EXPECT_NE(kv_json_parse(text, __func__, "test", __LINE__), nullptr) << text;
  }
}

}  // namespace
