#pragma once
// The container thread and the one connection to the broker. The connection is made, watched and
// made again here until the transport ends: the library's own reconnection resumes half-received
// messages wrongly and gives up after a refused login. Every attempt is a fresh connection with
// fresh links.

#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/messaging_handler.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "messaging/kv_qpid_backoff.h"
#include "messaging/kv_qpid_receiver.h"
#include "messaging/kv_qpid_sender.h"
#include "messaging/kv_qpid_state.h"

// Every receiver of the process, by address; they live as long as the transport.
class kv_qpid_receivers {
 public:
  // The receiver of an address, made on first use by the given function.
  template <class Make>
  qpid_receiver& get(const std::string& address, Make&& make) {
    const std::lock_guard lock(mutex_);
    auto& receiver = receivers_[address];
    if (!receiver) {
      receiver = make();
    }
    return *receiver;
  }
  [[nodiscard]] std::vector<qpid_receiver*> all();

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::unique_ptr<qpid_receiver>> receivers_;
};

class qpid_connection : public proton::messaging_handler, public kv_qpid_link_owner {
 public:
  qpid_connection(kv_qpid_state& state, kv_qpid_receivers& receivers);

  [[nodiscard]] qpid_sender& sender() { return sender_; }

  // Body of the container thread.
  void run();
  // Any thread: waits until the container exists, then lets it connect. False when it ended first.
  bool start();
  // Any thread: closes the connection and ends the container. True once the container thread has
  // nothing left to do, false at the deadline.
  bool stop(kv_clock::time_point deadline);

  // Container thread.
  void drop_connection() override;
  void sender_opened() override;
  void sender_reopens() override;

  // Handlers, container thread.
  void on_connection_open(proton::connection& connection) override;
  void on_connection_error(proton::connection& connection) override;
  void on_connection_close(proton::connection& connection) override;
  void on_session_error(proton::session& session) override;
  void on_session_close(proton::session& session) override;
  void on_transport_error(proton::transport& transport) override;
  void on_transport_close(proton::transport& transport) override;
  void on_error(const proton::error_condition& condition) override;

 private:
  void run_container();
  void leave_container();
  [[nodiscard]] proton::connection_options connection_options();
  void connect();
  void retry();
  void wait_for_retry(std::uint64_t attempt);
  void watch_attempt(std::uint64_t attempt);
  void abort_connection();
  void lost();
  void serve_receivers();

  kv_qpid_state& state_;
  kv_qpid_receivers& receivers_;
  qpid_sender sender_;

  // Container thread only.
  proton::container* container_ = nullptr;
  proton::connection connection_;
  kv_qpid_backoff backoff_;
  std::uint64_t attempt_ = 0;
  kv_clock::time_point due_{};        // of the next attempt
  kv_clock::time_point give_up_{};    // of the present attempt
  kv_clock::time_point opened_at_{};  // when the sender opened; zero before
  bool established_ = false;          // the sender is open and nobody wants to drop it
  bool warned_plain_ = false;

  // Shared, under the mutex.
  std::mutex mutex_;
  std::condition_variable changed_;
  proton::container* shared_container_ = nullptr;
  bool connected_ = false;  // a connection exists, open or not
  bool started_ = false;
  bool ended_ = false;
};
