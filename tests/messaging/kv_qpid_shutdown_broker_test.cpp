// The end of a transport: nothing is lost, nothing is answered twice, and it does not take long.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "messaging/transport_fixture.h"
#include "support/trace_capture.h"

namespace {

using namespace std::chrono_literals;
using shutdown_test = transport_test;

constexpr auto kEndLimit = 2000ms;

// Counts how often each request was handled.
class tally {
 public:
  std::int32_t handle(kv_const_request_reply_t& pair) {
    {
      const std::lock_guard lock(mutex_);
      ++handled_[pair.request->json];
    }
    std::this_thread::sleep_for(3ms);
    return echo(pair);
  }
  [[nodiscard]] int most() {
    const std::lock_guard lock(mutex_);
    int most = 0;
    for (const auto& [json, count] : handled_) {
      most = std::max(most, count);
    }
    return most;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, int> handled_;
};

TEST_F(shutdown_test, UnderLoadLosesNothingAndHandlesNothingTwice) {
  const trace_capture trace;
  tally handled;
  const auto handler = [&](kv_const_request_reply_t& pair) { return handled.handle(pair); };
  auto first = std::make_unique<service>(settings(), "handover", handler, 8);
  endpoint& asking = client();
  std::atomic<int> answered{0};
  std::atomic<int> sent{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 30; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 20; ++j) {
        const std::string json = std::to_string(sent.fetch_add(1));
        answered += asking.request("handover", json).json == json ? 1 : 0;
      }
    });
  }
  ASSERT_TRUE(eventually([&] { return answered.load() > 60; }));
  const service second(settings(), "handover", handler, 8);
  kv_amqp_stop_services(first->end().config(), 5000);
  const int at_stop = first->handled();
  ASSERT_TRUE(eventually([&] { return second.handled() > 20; }));
  EXPECT_EQ(first->handled(), at_stop) << "took a request after its stop";
  first.reset();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(answered.load(), 600);
  EXPECT_EQ(handled.most(), 1);
  EXPECT_EQ(trace.count("] ERROR"), 0);
}

TEST_F(shutdown_test, OfTheServicesLeavesTheClientSideAlone) {
  const service other(settings(), "elsewhere", echo);
  service stopping(settings(), "mine", echo);
  ASSERT_TRUE(stopping.end().wait_until_open());
  EXPECT_EQ(stopping.end().request("elsewhere", "{}").rc, 0);
  kv_amqp_stop_services(stopping.end().config(), 5000);
  EXPECT_EQ(stopping.end().request("elsewhere", "{}").rc, 0);
  EXPECT_EQ(stopping.end().request("mine", "{}", {}, 200).error, "Timeout");
}

TEST_F(shutdown_test, AnswersWhatIsInWorkFirst) {
  service server(settings(), "inwork", [](kv_const_request_reply_t& pair) {
    std::this_thread::sleep_for(400ms);
    return echo(pair);
  });
  endpoint& asking = client();
  auto answer = std::async(std::launch::async, [&] { return asking.request("inwork", "{}"); });
  ASSERT_TRUE(eventually([&] { return server.handled() == 1; }));
  kv_amqp_stop_services(server.end().config(), 5000);
  EXPECT_EQ(answer.get().rc, 0);
}

TEST_F(shutdown_test, WhenIdleIsQuickAndSilent) {
  const trace_capture trace;
  {
    service server(settings(), "idle", echo, 50);
    ASSERT_TRUE(server.end().wait_until_open());
    EXPECT_EQ(server.end().request("idle", "{}").rc, 0);
    EXPECT_LT(server.end().end(), kEndLimit);
  }
  EXPECT_EQ(trace.count("] ERROR"), 0);
  EXPECT_EQ(trace.count("] WARN"), 0);
}

TEST_F(shutdown_test, WithoutABrokerIsQuick) {
  kv_amqp_config_ptr nowhere = settings();
  std::free(nowhere->broker_port);
  nowhere->broker_port = copy_text("1");
  service server(std::move(nowhere), "svc", echo);
  std::this_thread::sleep_for(300ms);  // into the back-off
  EXPECT_LT(server.end().end(), kEndLimit);
}

TEST_F(shutdown_test, AfterALostBrokerIsQuick) {
  suite_process own({"--no-control", "--quiet"});
  service server(own.client_config(), "svc", echo);
  ASSERT_TRUE(server.end().wait_until_open());
  own.kill();
  std::this_thread::sleep_for(300ms);
  EXPECT_LT(server.end().end(), kEndLimit);
}

TEST_F(shutdown_test, WithAFrozenBrokerIsQuick) {
  suite_process own({"--no-control", "--quiet"});
  service server(own.client_config(), "svc", echo);
  ASSERT_TRUE(server.end().wait_until_open());
  EXPECT_EQ(server.end().request("svc", "{}").rc, 0);
  own.freeze();
  EXPECT_LT(server.end().end(), kEndLimit);
}

TEST_F(shutdown_test, InAHungHandshakeIsQuick) {
  suite_process own({"--no-control", "--quiet"});
  own.freeze();
  service server(own.client_config(), "svc", echo);
  std::this_thread::sleep_for(200ms);
  EXPECT_LT(server.end().end(), kEndLimit);
}

TEST_F(shutdown_test, WithARefusedLoginIsQuick) {
  kv_amqp_config_ptr config = settings();
  std::free(config->broker_password);
  config->broker_password = copy_text("wrong");
  service server(std::move(config), "svc", echo);
  std::this_thread::sleep_for(300ms);
  EXPECT_LT(server.end().end(), kEndLimit);
}

TEST_F(shutdown_test, LeavesBehindAHandlerThatIsStuck) {
  const trace_capture trace;
  std::promise<void> release;
  auto gate = release.get_future().share();
  auto ended = std::make_shared<std::promise<void>>();
  auto has_ended = ended->get_future();
  service server(
      settings(), "stuck",
      [=](kv_const_request_reply_t& pair) {
        gate.wait();
        ended->set_value();
        return echo(pair);
      },
      1);
  endpoint& asking = client();
  auto answer =
      std::async(std::launch::async, [&] { return asking.request("stuck", "{}", {}, 4000); });
  ASSERT_TRUE(eventually([&] { return server.handled() == 1; }));
  EXPECT_LT(server.end().end(), kEndLimit);
  EXPECT_EQ(trace.count("WARN", "Handler threads are still at work and are left behind"), 1);
  release.set_value();
  EXPECT_EQ(has_ended.wait_for(20s), std::future_status::ready);
  EXPECT_NE(answer.get().rc, 0);
}

TEST_F(shutdown_test, WakesWhoeverWaitsForAReply) {
  endpoint leaving(settings());
  ASSERT_TRUE(leaving.wait_until_open());
  auto answer =
      std::async(std::launch::async, [&] { return leaving.request("nobody", "{}", {}, 60'000); });
  std::this_thread::sleep_for(100ms);
  EXPECT_LT(leaving.end(), kEndLimit);
  EXPECT_EQ(answer.get().error, "receiver closed");
}

TEST_F(shutdown_test, TwiceOrWithoutAStartIsHarmless) {
  kv_amqp_deinit(nullptr);
  const kv_amqp_config_ptr never_started = settings();
  kv_amqp_deinit(never_started.get());
  kv_amqp_stop_services(never_started.get(), 10);
  endpoint once(settings());
  EXPECT_LT(once.end(), kEndLimit);
  EXPECT_LT(once.end(), kEndLimit);
  EXPECT_EQ(once.request("svc", "{}").error, "Invalid parameters");
}

}  // namespace
