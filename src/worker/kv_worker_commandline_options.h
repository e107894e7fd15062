#pragma once
// The option table of the command line: one row per long option, in the order in which they are
// told to getopt. Private to the parser and its test.

#include <getopt.h>

#include <array>
#include <cstdint>
#include <limits>

#include "worker/kv_worker.h"

enum class kv_option_kind {
  flag,    // sets a byte to 1
  number,  // signed 32-bit; a value out of range is passed over
  number64,
  text,     // stored as it stands
  broker,   // split into host and port
  ready,    // a text whose arrival is announced
  screen,   // a flag that works at once
  debug,    // waits for a key
  ignored,  // accepted for older callers
};

// Where a row's value goes; only the member that fits its kind is set.
struct kv_option_target {
  std::uint8_t& (*flag)(kv_worker_config_t&) = nullptr;
  std::int32_t& (*number)(kv_worker_config_t&) = nullptr;
  std::int64_t& (*number64)(kv_worker_config_t&) = nullptr;
  char*& (*text)(kv_worker_config_t&) = nullptr;
};

struct kv_option_rule {
  const char* name;
  char letter;
  kv_option_kind kind;
  int argument;  // no_argument or required_argument
  kv_option_target target;
  std::int64_t lowest = std::numeric_limits<std::int32_t>::min();
  std::int64_t highest = std::numeric_limits<std::int32_t>::max();
  const char* failure = nullptr;   // message when the value cannot be stored
  bool failure_to_stderr = false;  // the message goes to standard error instead of the log
};

namespace kv_options {

template <auto Member>
auto& own(kv_worker_config_t& config) {
  return config.*Member;
}
template <auto Member>
auto& amqp(kv_worker_config_t& config) {
  return config.amqp->*Member;
}
template <auto Member>
auto& update(kv_worker_config_t& config) {
  return config.update->*Member;
}
template <auto Member>
auto& network(kv_worker_config_t& config) {
  return config.network->*Member;
}

using flag_at = std::uint8_t& (*)(kv_worker_config_t&);
using number_at = std::int32_t& (*)(kv_worker_config_t&);
using text_at = char*& (*)(kv_worker_config_t&);

constexpr std::int64_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();

constexpr kv_option_rule flag(const char* name, char letter, flag_at at) {
  return {name, letter, kv_option_kind::flag, no_argument, {.flag = at}};
}
constexpr kv_option_rule number(const char* name, char letter, number_at at,
                                std::int64_t lowest = kInt32Min, std::int64_t highest = kInt32Max) {
  return {name, letter, kv_option_kind::number, required_argument, {.number = at}, lowest, highest};
}
constexpr kv_option_rule text(const char* name, char letter, text_at at, const char* failure,
                              bool failure_to_stderr = false) {
  return {name,      letter,  kv_option_kind::text, required_argument, {.text = at}, kInt32Min,
          kInt32Max, failure, failure_to_stderr};
}
constexpr kv_option_rule ready(const char* name, char letter, text_at at, const char* failure) {
  kv_option_rule rule = text(name, letter, at, failure);
  rule.kind = kv_option_kind::ready;
  return rule;
}
constexpr kv_option_rule ignored(const char* name, char letter) {
  return {name, letter, kv_option_kind::ignored, required_argument, {}};
}

using config = kv_worker_config_t;

inline constexpr std::array<kv_option_rule, 37> kRules{{
    text("basedir", 'a', own<&config::basedir>, "Failed to store basedir"),
    text("tempdir", 'b', own<&config::tempdir>, "Failed to store tempdir"),
    text("work-directory", 'c', own<&config::work_directory>, "Failed to store work-directory"),
    flag("primary", 'd', own<&config::primary>),
    {"broker",
     'e',
     kv_option_kind::broker,
     required_argument,
     {},
     kInt32Min,
     kInt32Max,
     "Failed to store broker endpoint"},
    number("worker-threads", 'g', own<&config::worker_threads>),
    number("control-connection-timeout", 'h', own<&config::control_connection_timeout>, 1, 59),
    flag("autoscale", 'i', own<&config::autoscale>),
    number("autoscale-monitoring-period", 'j', own<&config::autoscale_monitoring_period>, 2, 119),
    number("autoscale-high-water-mark", 'k', own<&config::autoscale_high_water_mark>, 2, 99),
    number("autoscale-low-water-mark", 'l', own<&config::autoscale_low_water_mark>, 6, 99),
    number("tracelevel", 'm', own<&config::trace_level>, 0, 6),
    text("tracefile", 'n', own<&config::trace_file>, "Failed to store tracefile"),
    {"tracefile-maxsize",
     'E',
     kv_option_kind::number64,
     required_argument,
     {.number64 = own<&config::trace_file_maxsize>},
     0,
     std::numeric_limits<std::int64_t>::max()},
    {"trace-to-screen",
     'o',
     kv_option_kind::screen,
     no_argument,
     {.flag = own<&config::trace_to_screen>}},
    text("update-server", 'p', update<&kv_update_config_t::update_server>,
         "Failed to store update-server\n", true),
    flag("update-engine", 'q', update<&kv_update_config_t::update_engine>),
    flag("update-data", 'r', update<&kv_update_config_t::update_data>),
    flag("update-binary", 's', update<&kv_update_config_t::update_binary>),
    text("http-proxy", 't', network<&kv_worker_network_config_t::http_proxy>,
         "Failed to store http-proxy\n", true),
    number("update-check-interval", 'v', update<&kv_update_config_t::check_interval>),
    number("update-max-backups", 'w', update<&kv_update_config_t::max_backups>),
    flag("console-mode", 'x', own<&config::console_mode>),
    text("broker-user", 'y', amqp<&kv_amqp_config::broker_user>, "Failed to store broker_user"),
    text("broker-password", 'z', amqp<&kv_amqp_config::broker_password>,
         "Failed to store broker_password"),
    text("broker-cert", 'A', amqp<&kv_amqp_config::cert_path>, "Failed to store cert_path"),
    ready("signal_when_ready", 'B', own<&config::signal_when_ready>,
          "Failed to store signal_when_ready"),
    text("shutdown_when_ready", 'C', own<&config::shutdown_when_ready>,
         "Failed to store shutdown_when_ready"),
    text("secret", 'D', own<&config::secret>, "Failed to store shutdown_secret"),
    ignored("config-file", 'F'),
    {"debug", 'G', kv_option_kind::debug, no_argument, {}},
    number("register-interval", 'H', own<&config::register_interval>),
    ignored("quarantine_base_path", 'I'),
    ignored("quarantine_service_key", 'J'),
    flag("no_certificate_check", 'K', update<&kv_update_config_t::no_certificate_check>),
    flag("useSharedMemoryforRecursion", 'L', own<&config::use_shm_for_recursion>),
    flag("amqp-over-http", 'S', own<&config::amqp_over_http>),
}};

// "S" is missing on purpose: that option has a long form only.
inline constexpr char kShortOptions[] =
    "a:b:c:de:g:h:ij:k:l:m:n:op:qrst:v:w:xy:z:A:B:C:D:E:F:GH:I:J:KL";

constexpr bool short_options_fit_the_rules() {
  std::size_t found = 0;
  for (std::size_t i = 0; kShortOptions[i] != '\0'; ++i) {
    if (kShortOptions[i] == ':') {
      continue;
    }
    for (const kv_option_rule& rule : kRules) {
      const bool takes_value = kShortOptions[i + 1] == ':';
      if (rule.letter == kShortOptions[i] && takes_value == (rule.argument == required_argument)) {
        ++found;
      }
    }
  }
  return found == kRules.size() - 1;
}
static_assert(short_options_fit_the_rules());

}  // namespace kv_options
