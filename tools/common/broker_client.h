#pragma once
// A command-line program's connection to a broker: where it is, who asks, and requests to services.
// A thin coat over the messaging library for programs that are not workers.

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/kv_guard.h"
#include "messaging/kv_amqp_client.h"
#include "messaging/kv_qpid_proton_mt_interface.h"

namespace kv_tools {

// What a person gives by options, environment or files; empty: not given.
struct broker_settings {
  std::string url;  // amqps://host:port
  std::string user;
  std::string password_file;  // first line is the password
  std::string certificate;    // trusted authorities, PEM
  std::string suite_dir;      // folder of a running kv-av-suite: fills what is not given
};

// Environment variables that stand in for missing settings.
inline constexpr const char* kUrlVariable = "KV_AV_BROKER";
inline constexpr const char* kUserVariable = "KV_AV_BROKER_USER";
inline constexpr const char* kPasswordVariable = "KV_AV_BROKER_PASSWORD";
inline constexpr const char* kPasswordFileVariable = "KV_AV_BROKER_PASSWORD_FILE";
inline constexpr const char* kCertificateVariable = "KV_AV_BROKER_CERT";

// Something that the person at the screen can mend; the text says what.
struct broker_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class broker_client {
 public:
  // Connects; throws broker_error when settings are missing or no connection stands within the
  // limit.
  explicit broker_client(const broker_settings& settings, std::uint32_t limit_ms = 10'000);
  ~broker_client();
  broker_client(const broker_client&) = delete;
  broker_client& operator=(const broker_client&) = delete;

  // One request without retries. Null with the reason in error when no JSON comes back within the
  // time-out. Any thread.
  [[nodiscard]] kv_json_ptr ask(const std::string& service, const std::string& json,
                                std::span<const char> data, std::int32_t timeout_ms,
                                std::string& error) const;

  // Answers the queue's requests with so many threads until *stop is non-zero or close is called.
  // The argument and the flag outlive both. Throws broker_error.
  void serve(const std::string& queue, kv_service_request_callback callback, void* argument,
             const std::atomic<std::int32_t>& stop, int threads);
  // Ends connection and threads; nothing else works afterwards.
  void close();

 private:
  kv_amqp_config_ptr config_;
};

// First line of a file, without its line end; throws broker_error.
[[nodiscard]] std::string read_first_line(const std::string& path);

// Switches the library's own log to standard error, at ERROR, INFO, DEBUG or TRACE for 1 to 4.
void show_log(int verbosity);

}  // namespace kv_tools
