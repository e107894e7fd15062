#pragma once
// Client facade: the one entry through which the worker asks another service something over the
// broker and gets a parsed JSON answer back. Holds the broker settings, starts and stops the
// transports, picks the transport of each request, retries, parses the reply. Any thread; nothing
// is thrown across.

#include <json-c/json.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/kv_guard.h"
#include "messaging/kv_request_reply_types.h"

struct kv_qpid_transport;  // shared state of the Proton transport

// Size of every buffer that receives an error text.
inline constexpr std::size_t KV_ERROR_TEXT_SIZE = 1024;

// One per process, made at start-up and kept until exit. Texts are owned and come from the C
// allocator; constant once kv_amqp_init has been called.
struct kv_amqp_config {
  char* broker_host;
  char* broker_port;  // kept as text
  char* broker_user;
  char* reserved_text;  // not read
  char* broker_password;
  char* cert_path;  // trusted CA certificates, PEM
  char* cert_data;  // the certificate file's contents, filled for the uAMQP transport only
  char* proxy_host;
  char* proxy_port;
  char* proxy_user;
  char* proxy_password;
  std::uint8_t use_uamqp;        // 1: outgoing requests take the uAMQP transport
  kv_qpid_transport* transport;  // null until kv_qpid_init
  // 1: the broker URL's scheme is "amqp" and no certificate is configured, so the connection is
  // plain TCP. In every other case it is TLS, with the system's trust store when cert_path is not
  // set.
  std::uint8_t plain_tcp;
};

[[nodiscard]] kv_amqp_config* kv_amqp_config_new();
void kv_amqp_config_free(kv_amqp_config** config);
using kv_amqp_config_ptr = std::unique_ptr<kv_amqp_config, kv_free_address<kv_amqp_config_free>>;

// Starts the transports. Returns 0, or the uAMQP transport's result.
[[nodiscard]] int kv_amqp_init(kv_amqp_config* config);
// Waits until requests can be sent, for at most limit_ms. False when they cannot.
bool kv_amqp_wait_connected(kv_amqp_config* config, std::uint32_t limit_ms);
// Stops the receivers of every service address: what is buffered is released to the broker, what is
// in work is answered, for at most limit_ms. Requests of this process to others still work
// afterwards.
void kv_amqp_stop_services(kv_amqp_config* config, std::uint32_t limit_ms);
// Ends the transports within 2 s, broker or no broker. Null is allowed.
void kv_amqp_deinit(kv_amqp_config* config);

// While an object of this class lives, requests of the calling thread end as failed within 250 ms
// of *stop becoming non-zero: neither a wait (for credit or a reply) nor another attempt goes on.
// For callers that ask without limit until the process ends.
inline thread_local const std::atomic<std::int32_t>* kv_amqp_stop_flag = nullptr;
// How often such a request looks at its flag.
inline constexpr std::int32_t KV_STOP_POLL_MS = 100;
[[nodiscard]] inline bool kv_amqp_stop_requested() noexcept {
  return kv_amqp_stop_flag != nullptr && kv_amqp_stop_flag->load(std::memory_order_relaxed) != 0;
}
class kv_amqp_stop_scope {
 public:
  explicit kv_amqp_stop_scope(const std::atomic<std::int32_t>* stop) noexcept
      : previous_(kv_amqp_stop_flag) {
    kv_amqp_stop_flag = stop;
  }
  ~kv_amqp_stop_scope() { kv_amqp_stop_flag = previous_; }
  kv_amqp_stop_scope(const kv_amqp_stop_scope&) = delete;
  kv_amqp_stop_scope& operator=(const kv_amqp_stop_scope&) = delete;

 private:
  const std::atomic<std::int32_t>* previous_;
};

// Sends a JSON request to a service and returns the parsed reply (the caller releases it), or null.
// retries of n makes n + 1 attempts at most. error_text may be null, else KV_ERROR_TEXT_SIZE bytes.
[[nodiscard]] json_object* kv_amqp_send_recv_json(kv_amqp_config* config, const char* service,
                                                  const char* request_json, std::int32_t timeout_ms,
                                                  std::uint32_t retries, char* error_text);
// The same for a pair whose request carries JSON text and data; the pair stays the caller's.
[[nodiscard]] json_object* kv_amqp_send_recv_json_data(kv_amqp_config* config, const char* service,
                                                       kv_const_request_reply_t* pair,
                                                       std::int32_t timeout_ms,
                                                       std::int32_t extra_time_ms,
                                                       std::uint32_t retries, char* error_text);
// The reply's "ReturnCode", or -1.
[[nodiscard]] int kv_amqp_simple_request(kv_amqp_config* config, const char* service,
                                         const char* request_json, std::int32_t timeout_ms,
                                         std::uint32_t retries, char* error_text);
