// The suite's definitions file, control service, sinks, and how they are reached by messages.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <proton/binary.hpp>
#include <proton/codec/map.hpp>
#include <proton/codec/vector.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <string>
#include <vector>

#include "definitions_file.h"
#include "service_messages.h"
#include "suite_services.h"

namespace kv_suite {
namespace {

using namespace std::chrono_literals;

class SuiteServices : public testing::Test {
 protected:
  SuiteServices() {
    char name[] = "/tmp/kv_suite_services.XXXXXX";
    folder_ = ::mkdtemp(name);
    path_ = folder_ + "/definitions.json";
  }
  ~SuiteServices() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& text) {
    // By a new file, so that even a content of the same size within a clock tick is a change.
    std::ofstream(path_ + ".new") << text;
    std::filesystem::rename(path_ + ".new", path_);
  }
  std::string lookup(definitions_file& file, const char* realm, const char* sid) {
    return json_object_to_json_string_ext(file.lookup(realm, sid).get(), JSON_C_TO_STRING_PLAIN);
  }
  auto note() {
    return [this](const std::string& line) { notes_.push_back(line); };
  }

  std::string folder_;
  std::string path_;
  std::vector<std::string> notes_;
  std::vector<std::string> lines_;
  std::chrono::steady_clock::time_point now_ = std::chrono::steady_clock::now();
};

TEST_F(SuiteServices, TheBestFittingDefinitionIsGiven) {
  write(
      R"({"r1": {"s1": {"FLASH": 1, "GIFAR": 0}, "*": {"A": 1}}, "*": {"s1": {"B": 1}, "*": {"C": 2}}})");
  definitions_file file(path_, note());
  EXPECT_EQ(lookup(file, "r1", "s1"), R"([["FLASH",1],["GIFAR",0]])");
  EXPECT_EQ(lookup(file, "r1", "other"), R"([["A",1]])");
  EXPECT_EQ(lookup(file, "other", "s1"), R"([["B",1]])");
  EXPECT_EQ(lookup(file, "other", "other"), R"([["C",2]])");
  EXPECT_TRUE(notes_.empty());
}

TEST_F(SuiteServices, APairWithoutEntryGetsAnEmptyDefinition) {
  write(R"({"r1": {"s1": {"FLASH": 1}}})");
  definitions_file file(path_, note());
  EXPECT_EQ(lookup(file, "r1", "s2"), "[]");
  EXPECT_EQ(lookup(file, "r2", "s1"), "[]");
  EXPECT_EQ(lookup(file, "R1", "s1"), "[]") << "realms are compared exactly";
}

TEST_F(SuiteServices, AChangedFileIsReadAnew) {
  write(R"({"r": {"s": {"A": 1}}})");
  definitions_file file(path_, note());
  EXPECT_EQ(lookup(file, "r", "s"), R"([["A",1]])");
  write(R"({"r": {"s": {"A": 0}}})");
  EXPECT_EQ(lookup(file, "r", "s"), R"([["A",0]])");
  ASSERT_EQ(notes_.size(), 1U);
  EXPECT_NE(notes_[0].find("read anew"), std::string::npos);
}

TEST_F(SuiteServices, ABrokenFileLeavesTheLastGoodContentInForce) {
  write(R"({"r": {"s": {"A": 1}}})");
  definitions_file file(path_, note());
  for (const char* broken :
       {"{", "[]", R"({"r": 1})", R"({"r": {"s": []}})", R"({"r": {"s": {"A": "on"}}})", ""}) {
    notes_.clear();
    write(broken);
    EXPECT_EQ(lookup(file, "r", "s"), R"([["A",1]])") << broken;
    EXPECT_EQ(lookup(file, "r", "s"), R"([["A",1]])") << broken;
    ASSERT_EQ(notes_.size(), 1U) << broken << ": told once";
    EXPECT_NE(notes_[0].find("cannot be used"), std::string::npos);
  }
  std::filesystem::remove(path_);
  EXPECT_EQ(lookup(file, "r", "s"), R"([["A",1]])");
}

TEST_F(SuiteServices, TheExampleCanBeUsed) {
  write(example_definitions());
  definitions_file file(path_, note());
  EXPECT_NE(lookup(file, "any", "any").find(R"(["HTML_SCRIPT",1])"), std::string::npos);
  EXPECT_TRUE(notes_.empty());
}

class SuiteControl : public SuiteServices {
 protected:
  SuiteControl() { write(R"({"r": {"s": {"FLASH": 1}}})"); }
  suite_services make() {
    return suite_services(
        file_, [this](std::string line) { lines_.push_back(std::move(line)); },
        [this] { return now_; });
  }
  definitions_file file_{(write(R"({"r": {"s": {"FLASH": 1}}})"), path_), note()};
};

TEST_F(SuiteControl, AnswersThePing) {
  EXPECT_EQ(make().control(R"({ "Command" : 3 })"), R"({"ReturnCode": 0})");
  EXPECT_TRUE(lines_.empty()) << "pings are no news";
}

TEST_F(SuiteControl, GivesTheDefinitionOfAPair) {
  EXPECT_EQ(make().control(R"({ "Command" : 203 , "realmID" : "r", "SID" : "s" })"),
            R"({"ReturnCode":0,"Active-content-definition":[["FLASH",1]]})");
  EXPECT_EQ(make().control(R"({ "Command" : 203 , "realmID" : "x", "SID" : "s" })"),
            R"({"ReturnCode":0,"Active-content-definition":[]})");
}

TEST_F(SuiteControl, RefusesWhatItDoesNotKnow) {
  for (const char* text : {"", "x", "[]", "{}", R"({"Command": 4})", R"({"Command": 204})",
                           R"({"Command": 200})", R"({"Command": 200, "worker-name": ""})"}) {
    EXPECT_EQ(make().control(text), R"({"ReturnCode": -1})") << text;
  }
}

TEST_F(SuiteControl, ShowsRegistrationsWithoutTheirSecret) {
  EXPECT_EQ(
      make().control(
          R"({ "Command": 200 , "worker-name": "w", "service-name": "v", "Primary": 1, "Secret": "abcd"})"),
      R"({"ReturnCode": 0})");
  ASSERT_EQ(lines_.size(), 1U);
  EXPECT_EQ(
      lines_[0],
      R"x({"sink":"control","message":{"Command":200,"worker-name":"w","service-name":"v","Primary":1,"Secret":"(4 characters)"}})x");
}

TEST_F(SuiteControl, ShowsTheWaterMarkNotices) {
  suite_services services = make();
  EXPECT_EQ(services.control(R"({ "Command" : 201, "worker-name" : "w" })"),
            R"({"ReturnCode": 0})");
  EXPECT_EQ(services.control(R"({ "Command" : 202, "worker-name" : "w" })"),
            R"({"ReturnCode": 0})");
  ASSERT_EQ(lines_.size(), 2U);
  EXPECT_EQ(lines_[1], R"({"sink":"control","message":{"Command":202,"worker-name":"w"}})");
}

TEST_F(SuiteControl, ListsTheWorkersThatStillRegister) {
  suite_services services = make();
  const auto add = [&](const char* name) {
    return services.control(std::string(R"({"Command": 200, "worker-name": ")") + name +
                            R"(", "service-name": "kv-av-activecontent", "Primary": 1})");
  };
  add("one");
  now_ += 40s;
  add("two");
  add("two");
  now_ += 5s;
  EXPECT_EQ(
      services.suite(R"({"Command": "workers"})"),
      R"({"ReturnCode":0,"workers":[)"
      R"({"worker-name":"one","service-name":"kv-av-activecontent","Primary":1,"registrations":1,"seconds-ago":45},)"
      R"({"worker-name":"two","service-name":"kv-av-activecontent","Primary":1,"registrations":2,"seconds-ago":5}]})");
  now_ += 20s;
  const std::string later = services.suite(R"({"Command": "workers"})");
  EXPECT_EQ(later.find("\"one\""), std::string::npos) << "silent for a minute";
  EXPECT_NE(later.find("\"two\""), std::string::npos);
}

TEST_F(SuiteControl, SinksAcknowledgeAndShowWhateverArrives) {
  suite_services services = make();
  EXPECT_EQ(services.log("{\n  \"LogVersion\": 1\n}"), R"({"ReturnCode": 0})");
  EXPECT_EQ(services.event(R"({"Command": 501, "path": "a/b"})"), R"({"ReturnCode": 0})");
  EXPECT_EQ(services.log("no \"JSON\""), R"({"ReturnCode": 0})");
  EXPECT_EQ(lines_,
            (std::vector<std::string>{R"({"sink":"log","message":{"LogVersion":1}})",
                                      R"({"sink":"event","message":{"Command":501,"path":"a/b"}})",
                                      R"({"sink":"log","message":"no \"JSON\""})"}));
}

class SuiteServiceMessages : public testing::Test {
 protected:
  std::optional<proton::message> call(proton::message request) {
    const std::vector<char> bytes = request.encode();
    const service_handler handler = make_json_service([this](const std::string& json) {
      seen_ = json;
      return std::string("answer");
    });
    const std::optional<service_reply> reply =
        handler(std::string_view(bytes.data(), bytes.size()));
    if (!reply)
      return std::nullopt;
    proton::message message;
    message.decode({reply->encoded.begin(), reply->encoded.end()});
    EXPECT_EQ(reply->to, message.to());
    return message;
  }
  std::string seen_ = "(not called)";
};

TEST_F(SuiteServiceMessages, TakeTheTextOutOfEveryFormOfBody) {
  const proton::value text{"{}"};
  const std::vector<proton::value> rows{
      std::vector<proton::value>{"{}"},
      std::vector<proton::value>{"{}", proton::binary("data")},
      std::vector<proton::value>{proton::binary("{}")},
      std::vector<std::string>{"{}", "data"},
      std::map<std::string, proton::value>{{"json", "{}"}, {"data", "x"}},
      text,
      proton::value(proton::binary("{}")),
  };
  for (const proton::value& body : rows) {
    proton::message request;
    request.body() = body;
    request.reply_to("back");
    ASSERT_TRUE(call(request).has_value());
    EXPECT_EQ(seen_, "{}") << body;
  }
}

TEST_F(SuiteServiceMessages, AnswerWithTheIdOfTheRequest) {
  proton::message request(std::vector<proton::value>{"{}"});
  request.id(proton::message_id("id-7"));
  request.reply_to("back");
  const auto reply = call(request);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->to(), "back");
  EXPECT_EQ(reply->correlation_id(), proton::message_id("id-7"));
  std::vector<proton::value> body;
  proton::get(reply->body(), body);
  ASSERT_EQ(body.size(), 1U);
  EXPECT_EQ(proton::get<std::string>(body[0]), "answer");
  EXPECT_GT(reply->ttl().milliseconds(), 0U);
}

TEST_F(SuiteServiceMessages, BodiesWithoutATextAreHandedOnAsEmpty) {
  proton::message request(proton::value(5));
  request.reply_to("back");
  ASSERT_TRUE(call(request).has_value());
  EXPECT_EQ(seen_, "");
}

TEST_F(SuiteServiceMessages, WithoutReplyAddressNothingIsAnswered) {
  EXPECT_FALSE(call(proton::message(std::vector<proton::value>{"{}"})).has_value());
  EXPECT_EQ(seen_, "{}");
}

TEST_F(SuiteServiceMessages, ForeignBytesAreIgnored) {
  const service_handler handler =
      make_json_service([](const std::string&) { return std::string(); });
  EXPECT_FALSE(handler("no message").has_value());
  EXPECT_FALSE(handler("").has_value());
}

}  // namespace
}  // namespace kv_suite
