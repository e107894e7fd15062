#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/service_fixture.h"
#include "support/trace_capture.h"

namespace {

std::int64_t own_time() {
  struct stat status {};
  EXPECT_EQ(stat("/proc/self/exe", &status), 0);
  return status.st_mtime;
}

TEST(GlobalInit, MakesTheServiceAndDescribesIt) {
  const trace_capture trace;
  service_fixture service;
  ASSERT_NE(service.state(), nullptr);
  EXPECT_EQ(service.state()->program_timestamp, own_time());
  EXPECT_TRUE(service.state()->definitions.all().empty());
  const kv_service_description_t& description = *service.state()->description;
  EXPECT_STREQ(description.name, "Active content detection");
  EXPECT_EQ(description.major_version, 1U);
  EXPECT_EQ(description.minor_version, 45U);
  EXPECT_EQ(description.number_of_signatures, 0U);
  EXPECT_EQ(description.number_of_variants, 0U);
  EXPECT_EQ(description.timestamp, own_time());
  EXPECT_EQ(trace.count("TRACE", "Global Init complete"), 1);
}

TEST(InitializeService, FillsTheDescriptionAgain) {
  service_fixture service;
  *service.state()->description = {};
  const trace_capture trace;
  char error[KV_ERROR_TEXT_SIZE]{};
  EXPECT_EQ(kv_initialize_service(&service.thread, service.state(), error), 0);
  EXPECT_STREQ(service.state()->description->name, "Active content detection");
  EXPECT_EQ(service.state()->description->minor_version, 45U);
  EXPECT_EQ(service.state()->description->timestamp, own_time());
  EXPECT_EQ(trace.count("TRACE", "Entering"), 1);
  EXPECT_EQ(trace.count("TRACE", "Exiting. rc= 0"), 1);
}

TEST(InitializeService, ThreadCarriesTheSharedMemoryFlag) {
  for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}}) {
    service_fixture service;
    service.config.use_shm_for_recursion = flag;
    char error[KV_ERROR_TEXT_SIZE]{};
    EXPECT_EQ(kv_initialize_service(&service.thread, service.state(), error), 0);
    EXPECT_EQ(service.local.flag, flag);
  }
}

TEST(ServiceInitRequest, AnswersTheDescriptionAndMarksTheThread) {
  service_fixture service;
  const kv_text_ptr reply{kv_worker_handle_service_init_request(nullptr, &service.thread)};
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply.get(),
            "{ \"ReturnCode\": 0, \"MajorVersion\": 1, \"MinorVersion\": 45, "
            "\"NumberOfViruses\": 0, \"NumberOfVariants\": 0, \"Timestamp\": " +
                std::to_string(own_time()) + ", \"DriverName\": \"Active content detection\" }");
  EXPECT_EQ(service.local.state, 2U);
}

TEST(ServiceInitRequest, FailureIsLoggedAndLeavesTheThreadAsItIs) {
  service_fixture service;
  service.state()->description->name = nullptr;
  const trace_capture trace;
  EXPECT_EQ(kv_worker_handle_service_init_request(nullptr, &service.thread), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Failed to create Service Initialization reply"), 1);
  EXPECT_EQ(service.local.state, 0U);
}

TEST(ServiceInitRequest, ThreadsMayAnswerWhileOthersAreInitialised) {
  service_fixture service;
  std::thread initialiser{[&] {
    worker_thread_parameters other{};
    kv_thread_local_parameters_t local{};
    other.shared = &service.shared;
    other.thread_local_parameters = &local;
    char error[KV_ERROR_TEXT_SIZE]{};
    for (int i = 0; i < 500; ++i) {
      EXPECT_EQ(kv_initialize_service(&other, service.state(), error), 0);
    }
  }};
  for (int i = 0; i < 500; ++i) {
    const kv_text_ptr reply{kv_worker_handle_service_init_request(nullptr, &service.thread)};
    EXPECT_NE(std::strstr(reply.get(), "Active content detection"), nullptr);
  }
  initialiser.join();
}

// In a process of its own: the TLS library is gone afterwards.
TEST(GlobalCleanupDeathTest, CleansUpTheTlsLibrary) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const trace_capture trace;
        const int rc = kv_worker_global_cleanup(nullptr);
        const bool logged = trace.count("TRACE", "Cleaning up") == 1 &&
                            trace.count("DEBUG", "Cleaning up SSL") == 1;
        std::_Exit(rc == 0 && logged ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
