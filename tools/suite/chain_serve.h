#pragma once
// `kv-av-suite serve`: services of a scan chain as clients of a running suite's broker, until a
// signal ends them; and how `kv-av-suite run` starts and ends that process.

#include <sys/types.h>

#include <string>
#include <vector>

namespace kv_suite {

struct serve_options {
  std::string dir;                    // folder of the running suite
  std::vector<std::string> services;  // NAME=SPEC each
  int verbosity = 0;
};

// Returns the exit status: 0 after a signal, 2 when it cannot serve.
[[nodiscard]] int serve_chain(const serve_options& options);

// A process of its own with these services: it can be killed without harm to the broker, and no
// service, however slow, holds the broker's thread. It ends with this object, and with this
// process.
class chain_process {
 public:
  // Starts nothing without services. Throws std::runtime_error.
  chain_process(const std::string& dir, const std::vector<std::string>& services);
  ~chain_process();
  chain_process(const chain_process&) = delete;
  chain_process& operator=(const chain_process&) = delete;

 private:
  pid_t pid_ = -1;
};

}  // namespace kv_suite
