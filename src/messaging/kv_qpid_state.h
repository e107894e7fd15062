#pragma once
// What every object of the Proton transport shares: the settings and the few words that are read
// without a lock. No Proton object is in here; any thread may read it.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>

#include "messaging/kv_amqp_client.h"

using kv_clock = std::chrono::steady_clock;
using kv_ms = std::chrono::milliseconds;

// Limits and time-outs, with the values of production. Tests make them shorter.
struct kv_qpid_options {
  std::uint32_t credit = 50;         // messages of one address that the broker may send ahead
  kv_ms connect_timeout{10'000};     // until both the connection and its sender stand
  kv_ms idle_timeout{60'000};        // silence after which the broker counts as gone
  kv_ms backoff_first{10};           // shortest pause between two attempts
  kv_ms backoff_longest{60'000};     // longest pause between two attempts
  kv_ms backoff_reset_after{5'000};  // a connection that stood this long was a good one
  kv_ms reply_time_to_live{5'000};   // of a reply, and how long it waits for credit
  kv_ms never_opened_wait{1'000};    // at the end, for a link that is still to open
  kv_ms deinit_answer_limit{1'000};  // at the end, for what is in work
  kv_ms deinit_close_limit{500};     // at the end, for the broker's close
  kv_ms deinit_limit{1'800};         // at the end, altogether
  kv_ms tick{100};                   // longest single timer: a pending one holds up the end
};

// What the container thread is handed: copies, for a thread that is left behind at the end must not
// reach into a configuration that is no more.
struct kv_qpid_extra_params {
  std::string host;
  std::string port;
  std::string user;
  std::string password;
  std::string cert_path;  // empty: the system's trust store
  bool plain_tcp = false;
  kv_qpid_options options;
};

struct kv_qpid_state {
  explicit kv_qpid_state(kv_qpid_extra_params values) : params(std::move(values)) {}

  const kv_qpid_extra_params params;
  // Number of the present connection. What belongs to an earlier one is dead: its requests come
  // again, its deliveries can no longer be settled.
  std::atomic<std::uint64_t> generation{1};
  std::atomic<bool> stopping{false};  // the transport ends: no new connection, no error lines
  std::atomic<std::thread::id> container_thread{};

  [[nodiscard]] bool on_container_thread() const {
    return container_thread.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  [[nodiscard]] const kv_qpid_options& options() const { return params.options; }
};

// What links ask of the connection, on the container thread.
class kv_qpid_link_owner {
 public:
  // The way back from a failed link: the connection is closed and made again.
  virtual void drop_connection() = 0;
  virtual void sender_opened() = 0;
  // The sender opens another link on the same connection.
  virtual void sender_reopens() = 0;

 protected:
  ~kv_qpid_link_owner() = default;
};
