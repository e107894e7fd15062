#pragma once
// An AMQP 1.0 broker in one thread, on Proton's server side: TLS listener, SASL PLAIN, queues on
// demand under bare names, competing consumers by credit, time-to-live, redelivery. It keeps
// messages in memory only. All Proton objects belong to the broker's own thread; the functions of
// this class may be called from any thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "broker_queue.h"
#include "password_store.h"

namespace kv_suite {

struct broker_config {
  std::string host = "127.0.0.1";
  std::string port = "5671";     // "0" takes a free one
  std::string certificate_path;  // PEM; empty: no TLS
  std::string key_path;
  queue_limits limits;  // of each queue
  std::size_t max_message_bytes = std::size_t{256} << 20;
  std::size_t max_queues = 10'000;
  std::chrono::milliseconds handshake_limit{10'000};  // from accept to the AMQP open
  std::chrono::milliseconds idle_limit{60'000};       // silence of a peer
};

// What a service inside the process answers.
struct service_reply {
  std::string to;
  std::string encoded;  // whole AMQP message
};

// Called on the broker's thread with each whole message that reaches the service's queue; must
// neither block nor throw.
using service_handler = std::function<std::optional<service_reply>(std::string_view encoded)>;

// Told of what a person at the screen should know, in one line; called on the broker's thread.
using note_handler = std::function<void(const std::string& line)>;

class broker {
 public:
  // The store outlives the broker and is used on its thread only.
  broker(broker_config config, password_store& passwords, note_handler note);
  ~broker();
  broker(const broker&) = delete;
  broker& operator=(const broker&) = delete;

  // Queue answered inside the process. Before start.
  void add_service(const std::string& queue, service_handler handler);
  // Listens and serves; throws std::runtime_error when the address cannot be taken or the
  // certificate cannot be read.
  void start();
  // Port that it listens on.
  [[nodiscard]] std::uint16_t port() const;
  // Closes all connections and ends the thread, within 2 s.
  void stop();

 private:
  class implementation;
  std::unique_ptr<implementation> implementation_;
};

}  // namespace kv_suite
