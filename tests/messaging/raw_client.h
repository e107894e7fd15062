#pragma once
// A foreign client: puts messages on a queue whose bytes the test writes, and takes raw answers.
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/message.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/sender.hpp>
#include <proton/ssl.hpp>
#include <proton/tracker.hpp>

#include <string>
#include <vector>

#include "messaging/kv_amqp_client.h"

// The bytes of a message before its body section, ready for a body to be appended.
inline std::string message_head(const proton::message& message) {
  const std::vector<char> bytes = message.encode();
  const std::string null_body("\x00\x53\x77\x40", 4);
  std::string text(bytes.begin(), bytes.end());
  return text.ends_with(null_body) ? text.substr(0, text.size() - null_body.size()) : text;
}

// An amqp-value section holding a list of count nulls.
inline std::string list_of_nulls(std::uint32_t count) {
  std::string body("\x00\x53\x77\xd0", 4);
  for (const std::uint32_t number : {count + 4, count}) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      body.push_back(static_cast<char>(number >> shift));
    }
  }
  return body.append(count, '\x40');
}

// Sends the messages to a queue and returns when the broker has answered each; true when it
// accepted all of them.
class raw_sender : public proton::messaging_handler {
 public:
  raw_sender(const kv_amqp_config& config, std::string address, std::vector<std::string> messages)
      : config_(config), address_(std::move(address)), messages_(std::move(messages)) {}

  bool run() {
    proton::container container(*this);
    container.run();
    return accepted_ == messages_.size();
  }

 private:
  struct link_access : proton::sender {
    explicit link_access(const proton::sender& base) : proton::sender(base) {}
    [[nodiscard]] pn_link_t* get() const { return pn_object(); }
  };

  void on_container_start(proton::container& container) override {
    proton::connection_options options;
    options.user(config_.broker_user).password(config_.broker_password);
    options.ssl_client_options(
        proton::ssl_client_options(config_.cert_path, proton::ssl::VERIFY_PEER_NAME));
    container.open_sender(
        std::string(config_.broker_host) + ":" + config_.broker_port + "/" + address_, options);
  }
  void on_sendable(proton::sender& sender) override {
    pn_link_t* link = link_access(sender).get();
    for (; sent_ < messages_.size() && sender.credit() > 0; ++sent_) {
      pn_delivery(link, pn_dtag(reinterpret_cast<const char*>(&sent_), sizeof sent_));
      pn_link_send(link, messages_[sent_].data(), messages_[sent_].size());
      pn_link_advance(link);
    }
  }
  void on_tracker_accept(proton::tracker&) override { ++accepted_; }
  void on_tracker_settle(proton::tracker& tracker) override {
    if (++settled_ == messages_.size()) {
      tracker.connection().close();
    }
  }
  void on_error(const proton::error_condition&) override {}

  const kv_amqp_config& config_;
  std::string address_;
  std::vector<std::string> messages_;
  std::size_t sent_ = 0;
  std::size_t accepted_ = 0;
  std::size_t settled_ = 0;
};
