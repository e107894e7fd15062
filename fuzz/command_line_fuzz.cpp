// A command line from bytes, one argument per NUL-terminated text: whatever it holds, the parser
// returns and its numbers stay in their ranges.
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "worker/kv_worker_commandline.h"
#include "worker/kv_worker_config.h"

namespace {

constexpr std::size_t kMaxArguments = 64;

std::vector<std::string> s_arguments(std::string_view bytes) {
  std::vector<std::string> arguments{"worker"};
  while (!bytes.empty() && arguments.size() < kMaxArguments) {
    const std::size_t end = bytes.find('\0');
    arguments.emplace_back(bytes.substr(0, end));
    bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
  }
  return arguments;
}

void s_require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

// "debug" prints and reads, and missing options are named: none of it belongs on the screen here.
void s_silence() {
  static const bool silent = std::freopen("/dev/null", "r", stdin) != nullptr &&
                             std::freopen("/dev/null", "w", stdout) != nullptr;
  s_require(silent);
  opterr = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  s_silence();
  std::vector<std::string> arguments = s_arguments({reinterpret_cast<const char*>(data), size});
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  kv_worker_config_ptr config{kv_worker_config_new()};
  config->amqp = kv_amqp_config_new();
  config->update = kv_update_config_new();
  config->network = kv_worker_network_config_new();
  const int rc =
      kv_worker_parse_commandline(static_cast<int>(arguments.size()), argv.data(), config.get());
  s_require(rc == 0 || rc == -1);
  s_require(rc != 0 || (config->basedir != nullptr && config->amqp->broker_host != nullptr &&
                        config->amqp->broker_port != nullptr));
  s_require(config->trace_level >= 0 && config->trace_level <= 6);
  s_require(config->autoscale_monitoring_period >= 2 && config->autoscale_monitoring_period <= 119);
  s_require(config->control_connection_timeout >= 1 && config->control_connection_timeout <= 59);
  s_require(config->trace_file_maxsize >= 0);
  return 0;
}
