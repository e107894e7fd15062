// Requests and replies of two processes' worth of transports through a real broker over TLS.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using namespace std::chrono_literals;

TEST_F(transport_test, ARequestIsAnsweredByTheServicesCallback) {
  const service server(settings(), "svc", echo);
  const exchange answer = client().request("svc", R"({"Command":3})");
  EXPECT_EQ(answer.rc, 0);
  EXPECT_EQ(answer.json, R"({"Command":3})");
}

TEST_F(transport_test, DataTravelsBesideTheJson) {
  const service server(settings(), "svc", echo);
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes.push_back(static_cast<char>(i));  // NUL and what is not UTF-8 included
  }
  const exchange answer = client().request("svc", "{}", bytes);
  EXPECT_EQ(answer.rc, 0);
  EXPECT_EQ(answer.data, bytes);
}

}  // namespace
