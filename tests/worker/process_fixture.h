#pragma once
// A worker's records as main makes them, over the fake transport and a fresh trace.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_transport.h"
#include "support/trace_capture.h"
#include "worker/kv_worker_config.h"

class process_fixture : public testing::Test {
 protected:
  process_fixture() {
    reset_fake_transport();
    killed = 0;
    config.reset(kv_worker_config_new());
    config->amqp = kv_amqp_config_new();
    config->update = kv_update_config_new();
    config->network = kv_worker_network_config_new();
    config->update_thread = kv_update_thread_args_new();
    config->update_thread->config = config.get();
    config->amqp->broker_host = strdup("broker.example");
    config->amqp->broker_port = strdup("5671");
    shared.reset(kv_worker_thread_args_new());
    shared->config = config.get();
  }
  ~process_fixture() override { killed = 0; }

  kv_worker_config_ptr config;
  kv_worker_thread_args_ptr shared;
  trace_capture trace;
};

// A request as the transport hands it to a handler, and the reply that the handler leaves.
class fake_job {
 public:
  explicit fake_job(std::string text, std::string data = {})
      : text_(std::move(text)), data_(std::move(data)), pair_(kv_const_request_reply_new()) {
    pair_->request->json = text_.c_str();
    if (!data_.empty()) {
      pair_->request->data = data_.data();
      pair_->request->data_size = data_.size();
    }
  }
  [[nodiscard]] kv_const_request_reply_t* pair() const { return pair_.get(); }
  [[nodiscard]] std::string reply() const {
    return pair_->reply->json == nullptr ? "" : pair_->reply->json;
  }

 private:
  std::string text_;
  std::string data_;
  kv_const_request_reply_ptr pair_;
};
