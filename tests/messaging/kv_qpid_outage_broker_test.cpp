// What becomes of requests when the broker dies, freezes, refuses or is not who it should be.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "messaging/transport_fixture.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

using namespace std::chrono_literals;

// Time-outs short enough for a test.
kv_qpid_options impatient() {
  kv_qpid_options options;
  options.connect_timeout = 1500ms;
  options.idle_timeout = 2000ms;
  options.backoff_longest = 200ms;
  return options;
}

class outage_test : public testing::Test {
 protected:
  const std::unique_ptr<suite_process> broker =
      std::make_unique<suite_process>(std::vector<std::string>{"--no-control", "--quiet"});
};

// Requests of several threads without a pause, each answered or failed within its time.
class load {
 public:
  load(endpoint& client, const std::string& address, int threads, int timeout_ms) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([=, this, &client] {
        while (!stop_.load()) {
          const auto start = test_clock::now();
          const exchange answer = client.request(address, "{}", {}, timeout_ms);
          (answer.rc == 0 ? answered_ : failed_).fetch_add(1);
          if (test_clock::now() - start > std::chrono::milliseconds(timeout_ms) + 5s) {
            overdue_.fetch_add(1);
          }
        }
      });
    }
  }
  ~load() { end(); }
  void end() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }
  [[nodiscard]] int answered() const { return answered_.load(); }
  [[nodiscard]] int failed() const { return failed_.load(); }
  [[nodiscard]] int overdue() const { return overdue_.load(); }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int> answered_{0};
  std::atomic<int> failed_{0};
  std::atomic<int> overdue_{0};
  std::vector<std::thread> threads_;
};

TEST_F(outage_test, AKilledBrokerIsServedAgainAfterItsRestart) {
  const trace_capture trace;
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  load requests(client, "svc", 8, 1500);
  ASSERT_TRUE(eventually([&] { return requests.answered() > 50; }));
  for (int round = 0; round < 2; ++round) {
    broker->kill();
    std::this_thread::sleep_for(300ms);
    broker->start();
    const int before = requests.answered();
    EXPECT_TRUE(eventually([&] { return requests.answered() > before + 50; })) << round;
  }
  requests.end();
  EXPECT_EQ(requests.overdue(), 0);
  EXPECT_GE(trace.count("WARN", "Sender reconnected"), 2);
  EXPECT_GE(trace.count("WARN", "Receiver on address 'svc' reconnected"), 1);
  EXPECT_GE(trace.count("ERROR", "unexpected error: "), 2);
}

TEST_F(outage_test, ABrokerThatIsStoppedInOrderIsServedAgain) {
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  EXPECT_EQ(client.request("svc", "{}").rc, 0);
  EXPECT_TRUE(broker->stop());
  broker->start();
  EXPECT_TRUE(eventually([&] { return client.request("svc", "{}", {}, 1000).rc == 0; }));
}

// Cut in the middle of large messages, both ways.
TEST_F(outage_test, ABreakWithinLargeMessagesLeavesNoTrace) {
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  const std::string data(3 << 20, 'x');
  for (int round = 0; round < 3; ++round) {
    std::thread asking([&] { client.request("svc", "{}", data, 1000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10 + 30 * round));
    broker->kill();
    broker->start();
    asking.join();
    EXPECT_TRUE(eventually([&] { return client.request("svc", "{}", data, 5000).data == data; }));
  }
}

TEST_F(outage_test, ARequestWhoseTimeHasPassedIsNotSentLate) {
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  EXPECT_EQ(client.request("svc", "{}").rc, 0);
  broker->kill();
  EXPECT_EQ(client.request("svc", "\"late\"", {}, 300).error, "Timeout");
  broker->start();
  EXPECT_TRUE(eventually([&] { return client.request("svc", "{}", {}, 1000).rc == 0; }));
  const int handled = server.handled();
  EXPECT_EQ(client.request("svc", "{}", {}, 5000).rc, 0);
  EXPECT_EQ(server.handled(), handled + 1);
}

TEST_F(outage_test, ARequestDuringAShortOutageIsAnsweredAfterIt) {
  const trace_capture trace;
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  EXPECT_EQ(client.request("svc", "{}").rc, 0);
  broker->kill();
  ASSERT_TRUE(eventually([&] { return trace.count("ERROR", "unexpected error: ") >= 2; }));
  auto answer =
      std::async(std::launch::async, [&] { return client.request("svc", "{}", {}, 60'000); });
  std::this_thread::sleep_for(200ms);
  broker->start();
  EXPECT_EQ(answer.get().rc, 0);
}

// The broker learns the client's password while the client's process runs.
TEST_F(outage_test, ARefusedLoginIsTriedAgainUntilItIsAccepted) {
  const trace_capture trace;
  const suite_process other({"--no-control", "--quiet"});
  kv_amqp_config_ptr config = broker->client_config();
  std::free(config->broker_password);
  config->broker_password = copy_text(other.password().c_str());
  endpoint client(std::move(config), impatient());
  ASSERT_TRUE(eventually([&] { return trace.count("ERROR", "amqp:unauthorized-access") >= 3; }));
  EXPECT_EQ(client.request("svc", "{}").error, "Work queue uninitialized");
  EXPECT_TRUE(broker->stop());
  write_whole_file(broker->dir() + "/users.json", read_whole_file(other.dir() + "/users.json"));
  broker->start();
  EXPECT_TRUE(client.wait_until_open());
}

struct distrust_case {
  const char* name;
  const char* host;
  bool own_ca;
};
class DistrustedBroker : public testing::TestWithParam<distrust_case> {};

TEST_P(DistrustedBroker, IsNotSpokenToAndTriedAgain) {
  const trace_capture trace;
  suite_process broker({"--no-control", "--quiet"});
  suite_process stranger({"--no-control", "--quiet"});
  kv_amqp_config_ptr config = broker.client_config();
  std::free(config->broker_host);
  config->broker_host = copy_text(GetParam().host);
  if (!GetParam().own_ca) {
    std::free(config->cert_path);
    config->cert_path = copy_text(stranger.ca_file().c_str());
  }
  endpoint client(std::move(config), impatient());
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", "unexpected error: ") >= 3; }));
  EXPECT_GE(trace.count("ERROR", "certificate verify failed"), 3);
  EXPECT_FALSE(client.config()->transport->connection.sender().was_opened());
}

INSTANTIATE_TEST_SUITE_P(Reasons, DistrustedBroker,
                         testing::Values(distrust_case{"AnotherAuthority", "localhost", false},
                                         distrust_case{"AnotherName", "127.1", true}),
                         [](const auto& row) { return row.param.name; });

TEST_F(outage_test, AMissingCertificateFileIsLoggedAndTriedAgain) {
  const trace_capture trace;
  kv_amqp_config_ptr config = broker->client_config();
  const temp_dir folder;
  const std::string right = config->cert_path;
  std::free(config->cert_path);
  config->cert_path = copy_text(folder.file("ca.pem").c_str());
  endpoint client(std::move(config), impatient());
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", folder.file("ca.pem")) >= 2; }));
  write_whole_file(folder.file("ca.pem"), read_whole_file(right));
  EXPECT_TRUE(client.wait_until_open());
}

TEST_F(outage_test, ACertificateFileOfAnotherKindIsLogged) {
  const trace_capture trace;
  kv_amqp_config_ptr config = broker->client_config();
  const temp_dir folder;
  write_whole_file(folder.file("ca.pem"), "no certificate");
  std::free(config->cert_path);
  config->cert_path = copy_text(folder.file("ca.pem").c_str());
  const endpoint client(std::move(config), impatient());
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", "no trusted certificate in ") >= 2; }));
}

TEST_F(outage_test, AFrozenBrokerIsNoticedAndLeft) {
  const trace_capture trace;
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  broker->freeze();
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", "local-idle-timeout expired") >= 1; }));
  // The next attempt hangs in its handshake, where the idle time-out does not count.
  EXPECT_TRUE(eventually([&] { return trace.count("ERROR", "connect time-out expired") >= 2; }));
  broker->thaw();
  EXPECT_TRUE(eventually([&] { return trace.count("WARN", "Sender reconnected") >= 1; }));
}

TEST_F(outage_test, AFrozenBrokerLosesNoRequest) {
  const service server(broker->client_config(), "svc", echo, 4, impatient());
  endpoint client(broker->client_config(), impatient());
  ASSERT_TRUE(client.wait_until_open());
  EXPECT_EQ(client.request("svc", "{}").rc, 0);
  broker->freeze();
  std::thread thawing([&] {
    std::this_thread::sleep_for(4000ms);
    broker->thaw();
  });
  EXPECT_TRUE(eventually([&] { return client.request("svc", "{}", {}, 1000).rc == 0; }, 40s));
  thawing.join();
}

}  // namespace
