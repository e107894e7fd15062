#pragma once
// Ends of the transport for tests with a broker: a client, a service with its handler threads, and
// a fixture with one suite for all tests of a program.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "messaging/kv_qpid_proton_mt_interface.h"
#include "messaging/kv_qpid_transport.h"
#include "messaging/kvhlp_replies.h"
#include "support/suite_process.h"

using test_clock = std::chrono::steady_clock;

// Waits for a condition that another thread brings about.
template <class Predicate>
[[nodiscard]] bool eventually(Predicate&& predicate,
                              std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = test_clock::now() + limit;
  while (!predicate()) {
    if (test_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// What came back from one request.
struct exchange {
  int rc = -1;
  std::string json;
  std::string data;
  std::string error;
};

// One process's end of the transport.
class endpoint {
 public:
  explicit endpoint(kv_amqp_config_ptr config, const kv_qpid_options& options = {})
      : config_(std::move(config)) {
    EXPECT_EQ(kv_qpid_init_with(config_.get(), options), 0);
  }
  ~endpoint() { end(); }
  endpoint(const endpoint&) = delete;
  endpoint& operator=(const endpoint&) = delete;

  [[nodiscard]] kv_amqp_config* config() { return config_.get(); }
  [[nodiscard]] bool wait_until_open() {
    return eventually([&] { return config_->transport->connection.sender().was_opened(); });
  }
  // Ends the transport; how long that took.
  std::chrono::milliseconds end() {
    const auto start = test_clock::now();
    kv_amqp_deinit(config_.get());
    return std::chrono::duration_cast<std::chrono::milliseconds>(test_clock::now() - start);
  }

  exchange request(const std::string& service, const std::string& json,
                   const std::string& data = {}, int timeout_ms = 20'000, int extra_ms = 0) {
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    pair->request->json = json.c_str();
    pair->request->data = data.empty() ? nullptr : data.data();
    pair->request->data_size = data.size();
    char error[KV_ERROR_TEXT_SIZE] = "";
    exchange result;
    result.rc = kv_qpid_send_receive_mt(config_.get(), service.c_str(), timeout_ms, extra_ms,
                                        pair.get(), error);
    result.error = error;
    if (pair->reply->json != nullptr) {
      result.json = pair->reply->json;
    }
    if (pair->reply->data != nullptr) {
      result.data.assign(static_cast<const char*>(pair->reply->data), pair->reply->data_size);
    }
    return result;
  }

 private:
  kv_amqp_config_ptr config_;
};

using request_handler = std::function<std::int32_t(kv_const_request_reply_t&)>;

// A process that serves a queue.
class service {
 public:
  service(kv_amqp_config_ptr config, const std::string& address, request_handler handler,
          int threads = 4, const kv_qpid_options& options = {})
      : handler_(std::move(handler)), end_(std::move(config), options) {
    EXPECT_EQ(kv_qpid_start_service_handler_threads(end_.config(), address.c_str(), s_call, this,
                                                    &stop_, threads),
              0);
  }
  ~service() {
    stop_ = 1;
    end_.end();
  }
  service(const service&) = delete;
  service& operator=(const service&) = delete;

  [[nodiscard]] endpoint& end() { return end_; }
  [[nodiscard]] int handled() const { return handled_.load(); }
  void raise_stop() { stop_ = 1; }

 private:
  static std::int32_t s_call(void* self, kv_const_request_reply_t* pair) {
    auto& own = *static_cast<service*>(self);
    own.handled_.fetch_add(1);
    return own.handler_(*pair);
  }

  request_handler handler_;
  std::atomic<std::int32_t> stop_{0};
  std::atomic<int> handled_{0};
  endpoint end_;
};

inline char* copy_text(const char* text) {
  return strdup(text);
}

// Sends a request's JSON and data back.
inline std::int32_t echo(kv_const_request_reply_t& pair) {
  pair.reply->json = copy_text(pair.request->json);
  if (pair.request->data != nullptr) {
    pair.reply->data = std::malloc(pair.request->data_size);
    std::memcpy(pair.reply->data, pair.request->data, pair.request->data_size);
    pair.reply->data_size = pair.request->data_size;
  }
  return 0;
}

// One broker for all tests of the fixture.
class transport_test : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    suite_ = std::make_unique<suite_process>(std::vector<std::string>{"--no-control", "--quiet"});
  }
  static void TearDownTestSuite() { suite_.reset(); }

  [[nodiscard]] static suite_process& broker() { return *suite_; }
  [[nodiscard]] static kv_amqp_config_ptr settings() { return suite_->client_config(); }
  [[nodiscard]] endpoint& client() {
    if (!client_) {
      client_ = std::make_unique<endpoint>(settings());
      EXPECT_TRUE(client_->wait_until_open());
    }
    return *client_;
  }

 private:
  inline static std::unique_ptr<suite_process> suite_;
  std::unique_ptr<endpoint> client_;
};
