// What the services of a scan chain answer.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "chain_service.h"
#include "common/kv_json.h"

namespace kv_suite {
namespace {

constexpr const char* kRequest =
    R"({"Command": 101, "ObjectName": "a/b", "ObjectLen": 9, "shmID": "0xffffffff"})";

std::string answer(const std::string& spec, const std::string& request = kRequest,
                   const std::string& data = "%PDF-1.4\n") {
  return answer_chain_request(parse_chain_service("name=" + spec), {request, data})
      .value_or("(none)");
}

std::string default_row(int code, const std::string& reason) {
  return R"({"ReturnCode":)" + std::to_string(code) +
         R"(,"File-name":"a/b","File-size":9,"MIME-type":"","MIME-encoding":"","File-type":"",)"
         R"("Extension":"","Object-type":0,"Virusname":")" +
         reason + R"("})";
}

TEST(SuiteChain, SpecsAndTheirAnswers) {
  struct row {
    const char* spec;
    std::string answer;
  };
  const row rows[] = {
      {"0", R"({"ReturnCode":0,"FilesScanned":1,"Results":[)" + default_row(0, " ") + "]}"},
      {R"({"code": -202, "reason": "Bad"})",
       R"({"ReturnCode":-202,"Blocking-reason":"Bad","FilesScanned":1,"Results":[)" +
           default_row(-202, "Bad") + "]}"},
      {R"({"code": -1000, "error": "Gone", "rows": []})",
       R"({"ReturnCode":-1000,"Error":"Gone","FilesScanned":0,"Results":[]})"},
      {R"({"rows": [5, {}]})",
       R"({"ReturnCode":0,"FilesScanned":2,"Results":[5,)" + default_row(0, " ") + "]}"},
      {R"({"text": "no JSON"})", "no JSON"},
      {R"({"never": 1})", "(none)"},
  };
  for (const row& row : rows) {
    EXPECT_EQ(answer(row.spec), row.answer) << row.spec;
  }
}

TEST(SuiteChain, RowsTakeTheObjectsNameAndTheirOwnMembers) {
  const std::string text = answer(R"({"rows": [{"File-name": "*/in.txt", "Extension": ".txt"}]})");
  EXPECT_NE(text.find(R"("File-name":"a/b/in.txt")"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("Extension":".txt")"), std::string::npos) << text;
}

TEST(SuiteChain, SpecsThatAreWrongAreRefused) {
  for (const char* spec : {"", "name", "=0", "name=", "name=[]", "name=\"x\"", "name=@/nonexistent",
                           "name={\"codes\": 1}", "name={\"threads\": 0}", "name={\"threads\": 65}",
                           "name={\"rows\": 1}"}) {
    EXPECT_THROW(static_cast<void>(parse_chain_service(spec)), std::runtime_error) << spec;
  }
}

TEST(SuiteChain, DelayAndThreadsAreRead) {
  const chain_service service = parse_chain_service(R"(b={"delay-ms": 5, "threads": 7})");
  EXPECT_EQ(service.name, "b");
  EXPECT_EQ(service.delay, std::chrono::milliseconds(5));
  EXPECT_EQ(service.threads, 7);
}

TEST(SuiteChain, APingIsAnsweredAndRubbishIsNot) {
  EXPECT_EQ(answer("mimescan", R"({"Command": 3})"), R"({"ReturnCode": 0})");
  EXPECT_NE(answer("mimescan", "rubbish").find("-1000"), std::string::npos);
  EXPECT_NE(answer("0", "[1]").find("-1000"), std::string::npos);
}

TEST(SuiteChain, TheMimescanLooksAtTheMessagesData) {
  const std::string text = answer("mimescan");
  EXPECT_NE(text.find(R"("File-name":"a/b","File-size":9,"MIME-type":"application/pdf")"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find(R"("File-type":"PDF document)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("Extension":".pdf")"), std::string::npos) << text;
}

TEST(SuiteChain, TheMimescanLooksAtTheSegment) {
  const int id = shmget(IPC_PRIVATE, 64, IPC_CREAT | 0600);
  void* address = shmat(id, nullptr, 0);
  std::memcpy(address, "%PDF-1.4\n", 9);
  const auto ask = [id](int length) {
    std::array<char, 128> request{};
    std::snprintf(request.data(), request.size(),
                  R"({"ObjectName": "x", "ObjectLen": %d, "shmID": "0x%x"})", length,
                  static_cast<unsigned>(id));
    return answer("mimescan", request.data(), "");
  };
  EXPECT_NE(ask(9).find("application/pdf"), std::string::npos);
  EXPECT_NE(ask(65).find("Failed to attach"), std::string::npos);
  EXPECT_EQ(shmdt(address), 0);
  shmid_ds status{};
  EXPECT_NE(shmctl(id, IPC_STAT, &status), 0);
}

TEST(SuiteChain, RequestsAreShown) {
  const chain_service service = parse_chain_service("n=0");
  EXPECT_EQ(show_chain_request(service, {R"({"a": "/"})", {}}),
            R"({"sink":"chain","message":{"service":"n","data-bytes":0,"request":{"a":"/"}}})");
  EXPECT_EQ(show_chain_request(service, {"rubbish", {}}),
            R"({"sink":"chain","message":{"service":"n","data-bytes":0,"request":"rubbish"}})");
}

}  // namespace
}  // namespace kv_suite
