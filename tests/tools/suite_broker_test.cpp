// Pure pieces of the suite's broker: message sections, queues, users, the PLAIN response.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <string>
#include <vector>

#include "broker_queue.h"
#include "broker_sasl.h"
#include "certificates.h"
#include "password_store.h"

namespace kv_suite {
namespace {

using namespace std::chrono_literals;

struct temporary_folder {
  temporary_folder() {
    char name[] = "/tmp/kv_suite_test.XXXXXX";
    path = ::mkdtemp(name);
  }
  ~temporary_folder() { std::filesystem::remove_all(path); }
  std::string path;
};

std::string encode(const proton::message& message) {
  const std::vector<char> bytes = message.encode();
  return {bytes.begin(), bytes.end()};
}

proton::message decode(const std::string& bytes) {
  proton::message message;
  message.decode({bytes.begin(), bytes.end()});
  return message;
}

proton::message request(const char* to) {
  proton::message message("body");
  message.to(to);
  message.reply_to("answers");
  message.id(proton::message_id("id-1"));
  return message;
}

TEST(SuiteMessageSections, FindTheAddressesAndTheTimeToLive) {
  proton::message message = request("kv-av-activecontent");
  message.ttl(proton::duration(1234));
  message.delivery_count(3);
  message.durable(true);
  message.priority(7);
  const std::string bytes = encode(message);
  message_sections sections;
  ASSERT_TRUE(read_message_sections(bytes, sections));
  EXPECT_EQ(sections.to, "kv-av-activecontent");
  EXPECT_EQ(sections.reply_to, "answers");
  EXPECT_EQ(sections.header.ttl_ms, 1234U);
  EXPECT_EQ(sections.header.delivery_count, 3U);
  EXPECT_TRUE(sections.header.durable);
  EXPECT_EQ(sections.header.priority, 7);
}

TEST(SuiteMessageSections, ANewHeaderReplacesTheOldOneAndNothingElse) {
  proton::message message = request("q");
  message.ttl(proton::duration(60000));
  message.properties().put("colour", "red");
  const std::string bytes = encode(message);
  message_sections sections;
  ASSERT_TRUE(read_message_sections(bytes, sections));
  message_header header = sections.header;
  header.delivery_count = 2;
  header.ttl_ms = 500;
  const proton::message again = decode(encode_header(header) + bytes.substr(sections.bare_offset));
  EXPECT_EQ(again.delivery_count(), 2U);
  EXPECT_EQ(again.ttl().milliseconds(), 500U);
  EXPECT_EQ(again.to(), "q");
  EXPECT_EQ(again.id(), proton::message_id("id-1"));
  EXPECT_EQ(proton::get<std::string>(again.properties().get("colour")), "red");
  EXPECT_EQ(proton::get<std::string>(again.body()), "body");
}

TEST(SuiteMessageSections, AHeaderOfDefaultsIsLeftOut) {
  EXPECT_EQ(encode_header({}), "");
}

TEST(SuiteMessageSections, EveryCutIsRefusedOrHoldsTheSameAddress) {
  const std::string bytes = encode(request("queue"));
  message_sections sections;
  EXPECT_FALSE(read_message_sections("", sections));
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    if (read_message_sections(std::string_view(bytes).substr(0, size), sections)) {
      EXPECT_TRUE(sections.to == "queue" || sections.to.empty()) << size;
    }
  }
}

TEST(SuiteMessageSections, ForeignBytesAreRefused) {
  message_sections sections;
  const std::vector<std::string> rows{
      "hello",
      std::string("\0\x53\x70\xc0\x05\x01\x70\0\0", 9),                 // header list cut short
      std::string("\0\x53\x70\xa1\x01x", 6),                            // header that is a string
      std::string("\0\x53\x6f\x45", 4),                                 // unknown section
      std::string("\0\x53\x79\x45", 4),                                 // unknown section
      std::string("\0\x53\x70\x45\0\x53\x70\x45", 8),                   // two headers
      std::string("\0\x53\x73\xc0\x05\x03\x40\x40\x50\x01", 10),        // "to" that is a number
      std::string("\0\x53\x70\xd0\xff\xff\xff\xff\0\0\0\x01\x41", 13),  // a size that lies
      std::string("\0\x53\x70\xc0\x03\x06\x40\x40", 8),                 // more fields than exist
  };
  for (const std::string& row : rows)
    EXPECT_FALSE(read_message_sections(row, sections));
}

class SuiteQueue : public testing::Test {
 protected:
  broker_message_ptr make(std::uint32_t ttl_ms = 0, const std::string& body = "0123456789") {
    message_sections sections;
    if (ttl_ms != 0)
      sections.header.ttl_ms = ttl_ms;
    return make_broker_message(body, sections, now_);
  }
  broker_clock::time_point now_ = broker_clock::now();
  broker_queue queue_{queue_limits{.messages = 3, .bytes = 100}};
};

TEST_F(SuiteQueue, GivesMessagesInOrder) {
  const auto first = make();
  const auto second = make();
  ASSERT_TRUE(queue_.push(first));
  ASSERT_TRUE(queue_.push(second));
  EXPECT_EQ(queue_.take(now_), first);
  EXPECT_EQ(queue_.take(now_), second);
  EXPECT_EQ(queue_.take(now_), nullptr);
}

TEST_F(SuiteQueue, RefusesWhatExceedsItsBoundsUntilAMessageIsFinished) {
  for (int index = 0; index < 3; ++index)
    ASSERT_TRUE(queue_.push(make()));
  EXPECT_FALSE(queue_.push(make()));
  const auto taken = queue_.take(now_);
  EXPECT_FALSE(queue_.push(make())) << "a taken message still counts";
  queue_.finish(*taken);
  EXPECT_TRUE(queue_.push(make()));
}

TEST_F(SuiteQueue, RefusesByBytes) {
  EXPECT_FALSE(queue_.push(make(0, std::string(101, 'x'))));
  EXPECT_TRUE(queue_.push(make(0, std::string(60, 'x'))));
  EXPECT_FALSE(queue_.push(make(0, std::string(41, 'x'))));
  EXPECT_TRUE(queue_.push(make(0, std::string(40, 'x'))));
  EXPECT_EQ(queue_.held_bytes(), 100U);
}

TEST_F(SuiteQueue, DropsWhatHasExpired) {
  ASSERT_TRUE(queue_.push(make(10)));
  const auto lasting = make();
  ASSERT_TRUE(queue_.push(lasting));
  EXPECT_EQ(queue_.expire(now_ + 9ms), 0U);
  EXPECT_EQ(queue_.expire(now_ + 10ms), 1U);
  EXPECT_EQ(queue_.held_messages(), 1U);
  EXPECT_EQ(queue_.take(now_ + 10ms), lasting);
}

TEST_F(SuiteQueue, TakeStepsOverTheExpired) {
  ASSERT_TRUE(queue_.push(make(10)));
  const auto lasting = make();
  ASSERT_TRUE(queue_.push(lasting));
  EXPECT_EQ(queue_.take(now_ + 1s), lasting);
  EXPECT_EQ(queue_.held_messages(), 1U);
}

TEST_F(SuiteQueue, PutBackKeepsThePlaceAndCountsFailures) {
  const auto first = make();
  ASSERT_TRUE(queue_.push(first));
  ASSERT_TRUE(queue_.push(make()));
  queue_.put_back(queue_.take(now_), put_back_as::released);
  EXPECT_EQ(first->header.delivery_count, 0U);
  EXPECT_EQ(queue_.take(now_), first);
  queue_.put_back(first, put_back_as::failed);
  EXPECT_EQ(first->header.delivery_count, 1U);
  EXPECT_EQ(queue_.take(now_), first);
  queue_.put_back(first, put_back_as::failed_to_end);
  EXPECT_NE(queue_.take(now_), first);
  EXPECT_EQ(queue_.take(now_), first);
}

TEST_F(SuiteQueue, TheTimeToLiveRunsOnInTheQueue) {
  const auto message = make(1000);
  EXPECT_EQ(header_to_send(*message, now_ + 400ms).ttl_ms, 600U);
  EXPECT_EQ(header_to_send(*message, now_ + 5s).ttl_ms, 1U);
  EXPECT_FALSE(header_to_send(*make(), now_).ttl_ms.has_value());
}

TEST(SuitePasswords, OnlyTheRightPasswordOfAKnownUserPasses) {
  password_store store;
  store.set("kv-av", "secret");
  EXPECT_TRUE(store.check("kv-av", "secret"));
  EXPECT_FALSE(store.check("kv-av", "Secret"));
  EXPECT_FALSE(store.check("other", "secret"));
  EXPECT_FALSE(store.check("", ""));
}

TEST(SuitePasswords, AVerdictIsComputedOncePerCredential) {
  password_store store;
  store.set("kv-av", "secret");
  for (int attempt = 0; attempt < 5; ++attempt) {
    EXPECT_TRUE(store.check("kv-av", "secret"));
    EXPECT_FALSE(store.check("kv-av", "wrong"));
  }
  EXPECT_EQ(store.hashes_computed(), 2U);
  store.set("kv-av", "new");
  EXPECT_FALSE(store.check("kv-av", "secret")) << "a changed password forgets the verdicts";
}

TEST(SuitePasswords, TheFileHoldsSaltedHashesAndIsPrivate) {
  const temporary_folder folder;
  const std::string path = folder.path + "/users.json";
  password_store store;
  store.set("one", "same password");
  store.set("two", "same password");
  store.save(path);
  const std::string text = [&] {
    password_store again;
    again.load(path);
    EXPECT_TRUE(again.check("one", "same password"));
    EXPECT_TRUE(again.check("two", "same password"));
    EXPECT_FALSE(again.check("two", "another"));
    std::string out(std::filesystem::file_size(path), '\0');
    FILE* file = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(std::fread(out.data(), 1, out.size(), file), out.size());
    std::fclose(file);
    return out;
  }();
  EXPECT_EQ(text.find("same password"), std::string::npos);
  const std::size_t first = text.find("$argon2id$");
  const std::size_t second = text.find("$argon2id$", first + 1);
  ASSERT_NE(second, std::string::npos);
  EXPECT_NE(text.substr(first, 90), text.substr(second, 90)) << "salts differ";
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(SuitePasswords, AnotherFormOfFileIsRefused) {
  const temporary_folder folder;
  password_store store;
  EXPECT_ANY_THROW(store.load(folder.path + "/absent"));
  for (const char* text : {"", "[]", "{\"user\": 1}", "{"}) {
    const std::string path = folder.path + "/users.json";
    FILE* file = std::fopen(path.c_str(), "wb");
    std::fputs(text, file);
    std::fclose(file);
    EXPECT_ANY_THROW(store.load(path)) << text;
  }
}

TEST(SuitePasswords, GeneratedOnesDiffer) {
  EXPECT_EQ(make_password().size(), 32U);
  EXPECT_NE(make_password(), make_password());
}

TEST(SuiteSasl, ReadsThePlainResponse) {
  plain_credential credential;
  ASSERT_TRUE(read_plain_response(std::string_view("\0user\0pass", 10), credential));
  EXPECT_EQ(credential.authorize_as, "");
  EXPECT_EQ(credential.user, "user");
  EXPECT_EQ(credential.password, "pass");
  ASSERT_TRUE(read_plain_response(std::string_view("as\0user\0pass", 12), credential));
  EXPECT_EQ(credential.authorize_as, "as");
}

TEST(SuiteSasl, RefusesOtherResponses) {
  plain_credential credential;
  const std::vector<std::string> rows{
      "",
      "user",
      std::string("\0user", 5),
      std::string("\0\0pass", 6),
      std::string("\0user\0", 6),
      std::string("\0u\0p\0x", 6),
      std::string(1, '\0') + std::string(5000, 'u') + std::string("\0p", 2)};
  for (const std::string& row : rows)
    EXPECT_FALSE(read_plain_response(row, credential));
}

TEST(SuiteCertificates, AreMadeOnceWithPrivateKeys) {
  const temporary_folder folder;
  const certificate_paths paths{folder.path + "/ca.pem", folder.path + "/server.pem",
                                folder.path + "/server.key"};
  make_certificates(paths);
  const auto written = std::filesystem::last_write_time(paths.certificate);
  make_certificates(paths);
  EXPECT_EQ(std::filesystem::last_write_time(paths.certificate), written);
  EXPECT_EQ(std::filesystem::status(paths.key).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const std::string verify = "openssl verify -CAfile " + paths.authority +
                             " -verify_hostname localhost " + paths.certificate +
                             " >/dev/null 2>&1";
  EXPECT_EQ(std::system(verify.c_str()), 0);
}

}  // namespace
}  // namespace kv_suite
