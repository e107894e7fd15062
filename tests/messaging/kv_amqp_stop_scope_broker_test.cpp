// Requests under a stop scope end with their flag, whatever their time-out and retries say.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "messaging/transport_fixture.h"

namespace {

using namespace std::chrono_literals;

// How long a request without an answer takes whose flag is raised after 100 ms.
std::chrono::milliseconds time_of_request(kv_amqp_config* config) {
  std::atomic<std::int32_t> stop{0};
  std::thread raiser([&] {
    std::this_thread::sleep_for(100ms);
    stop = 1;
  });
  const auto start = test_clock::now();
  {
    const kv_amqp_stop_scope scope(&stop);
    EXPECT_EQ(kv_amqp_send_recv_json(config, "nobody-serves-this", "{}", 20'000, 3, nullptr),
              nullptr);
  }
  const auto taken =
      std::chrono::duration_cast<std::chrono::milliseconds>(test_clock::now() - start);
  raiser.join();
  EXPECT_FALSE(kv_amqp_stop_requested());
  return taken;
}

class stop_scope : public transport_test {};

TEST_F(stop_scope, a_wait_for_a_reply_ends_with_the_flag) {
  const auto taken = time_of_request(client().config());
  EXPECT_GE(taken, 100ms);
  EXPECT_LT(taken, 2000ms);
}

TEST_F(stop_scope, a_wait_for_the_broker_ends_with_the_flag) {
  suite_process own({"--no-control", "--quiet"});
  endpoint end(own.client_config());
  ASSERT_TRUE(end.wait_until_open());
  own.kill();
  EXPECT_LT(time_of_request(end.config()), 2000ms);
}

TEST_F(stop_scope, a_request_without_a_scope_takes_its_time) {
  const auto start = test_clock::now();
  EXPECT_EQ(kv_amqp_send_recv_json(client().config(), "nobody", "{}", 300, 0, nullptr), nullptr);
  EXPECT_GE(test_clock::now() - start, 300ms);
}

TEST_F(stop_scope, a_connection_is_waited_for) {
  endpoint end(settings());
  EXPECT_TRUE(kv_amqp_wait_connected(end.config(), 10'000));
  kv_amqp_config_ptr nowhere = settings();
  std::free(nowhere->broker_port);
  nowhere->broker_port = strdup("1");
  endpoint lost(std::move(nowhere));
  const auto start = test_clock::now();
  EXPECT_FALSE(kv_amqp_wait_connected(lost.config(), 200));
  EXPECT_LT(test_clock::now() - start, 2000ms);
}

}  // namespace
