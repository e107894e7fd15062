#include "worker/kv_worker_commandline.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/KVstrerror.h"
#include "common/kvhlp_network.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_commandline_options.h"
#include "worker/kv_worker_config.h"

namespace {

using kv_options::kRules;

constexpr auto kLongOptions = [] {
  std::array<option, kRules.size() + 1> table{};  // the last row stays zero: the end mark
  for (std::size_t i = 0; i < kRules.size(); ++i) {
    table[i] = {kRules[i].name, kRules[i].argument, nullptr, kRules[i].letter};
  }
  return table;
}();

const kv_option_rule* s_find_rule(int letter) {
  for (const kv_option_rule& rule : kRules) {
    if (rule.letter == letter) {
      return &rule;
    }
  }
  return nullptr;
}

bool s_fail_to_store(const kv_option_rule& rule) {
  if (rule.failure_to_stderr) {
    std::fputs(rule.failure, stderr);
  } else {
    KV_LOG_ERROR("%s", rule.failure);
  }
  return false;
}

// A value out of the row's range is passed over, and the default stays.
template <class Integer>
bool s_store_number(const kv_option_rule& rule, Integer& target) {
  errno = 0;
  const std::int64_t value = std::strtol(optarg, nullptr, 10);
  if (errno != 0) {
    KV_LOG_ERROR("Failed to convert %s to int: %s", "optarg", KVstrerror(errno));
    return false;
  }
  if (value >= rule.lowest && value <= rule.highest) {
    target = static_cast<Integer>(value);
  }
  return true;
}

// Splits the endpoint. Its scheme is remembered: with the certificate, which may come later, it
// decides about TLS.
bool s_store_broker(kv_amqp_config& amqp, bool& is_amqp) {
  const kvhlp_url_ptr url{kvhlp_url_new()};
  if (!url || kvhlp_split_url(url.get(), optarg) != 0) {
    return false;
  }
  is_amqp = std::strcmp(url->scheme, "amqp") == 0;
  return kv_worker_store_text(amqp.broker_host, url->host) &&
         kv_worker_store_text(amqp.broker_port, url->port);
}

bool s_wait_for_key() {
  std::printf("PID: %d\n", getpid());
  std::printf("Press ENTER to continue...");
  std::fflush(stdout);
  std::getchar();
  return true;
}

bool s_store_text(const kv_option_rule& rule, kv_worker_config_t& config) {
  return kv_worker_store_text(rule.target.text(config), optarg) || s_fail_to_store(rule);
}

bool s_store_ready_target(const kv_option_rule& rule, kv_worker_config_t& config) {
  if (!s_store_text(rule, config)) {
    return false;
  }
  KV_LOG_INFO("Signaling READY to \"%s\"", optarg);
  return true;
}

bool s_apply(const kv_option_rule& rule, kv_worker_config_t& config, bool& broker_is_amqp) {
  switch (rule.kind) {
    case kv_option_kind::screen:
      log_set_screentrace(1);
      [[fallthrough]];
    case kv_option_kind::flag:
      rule.target.flag(config) = 1;
      return true;
    case kv_option_kind::number:
      return s_store_number(rule, rule.target.number(config));
    case kv_option_kind::number64:
      return s_store_number(rule, rule.target.number64(config));
    case kv_option_kind::text:
      return s_store_text(rule, config);
    case kv_option_kind::ready:
      return s_store_ready_target(rule, config);
    case kv_option_kind::broker:
      return s_store_broker(*config.amqp, broker_is_amqp) || s_fail_to_store(rule);
    case kv_option_kind::debug:
      return s_wait_for_key();
    case kv_option_kind::ignored:
      return true;
  }
  return false;
}

bool s_is_there(const char* value, const char* name) {
  if (value == nullptr || *value == '\0') {
    std::fprintf(stderr, "Option \"--%s\" is required\r\n", name);
    return false;
  }
  return true;
}

}  // namespace

int kv_worker_parse_commandline(int argc, char** argv, kv_worker_config_t* config) {
  config->argv = argv;
  optind = 0;  // getopt starts afresh
  bool broker_is_amqp = false;
  int letter = 0;
  while ((letter = getopt_long(argc, argv, kv_options::kShortOptions, kLongOptions.data(),
                               nullptr)) != -1) {
    const kv_option_rule* rule = s_find_rule(letter);
    if (rule == nullptr) {
      KV_LOG_ERROR("Unknown option \"- %c\"", letter);
      return -1;
    }
    if (!s_apply(*rule, *config, broker_is_amqp)) {
      return -1;
    }
  }
  config->amqp->plain_tcp = broker_is_amqp && config->amqp->cert_path == nullptr ? 1 : 0;
  const bool has_basedir = s_is_there(config->basedir, "basedir");
  const bool has_broker = s_is_there(config->amqp->broker_host, "broker");
  return has_basedir && has_broker ? 0 : -1;
}
