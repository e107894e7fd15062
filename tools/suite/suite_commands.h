#pragma once
// Commands to the workers of a running suite, sent as any client of its broker would.

#include <string>

namespace kv_suite {

struct command_options {
  std::string dir;          // folder of the running suite
  std::string worker;       // control address, or a service address for ping
  std::string realm;        // flush; empty: any
  std::string sid;          // flush; empty: any
  bool all = false;         // flush everything, whatever realm and SID
  std::string secret_file;  // shutdown
  int timeout_ms = 5000;
  int verbosity = 0;
};

// Each returns the exit status: 0 when the answer's "ReturnCode" is 0, 1 when it is another, 2 when
// there was none.
[[nodiscard]] int command_ping(const command_options& options);
[[nodiscard]] int command_flush(const command_options& options);
[[nodiscard]] int command_shutdown(const command_options& options);
// Prints one JSON line per registered worker.
[[nodiscard]] int command_workers(const command_options& options);

// Request texts; the flush is command 12 for everything, else 10.
[[nodiscard]] std::string flush_request(const command_options& options);
[[nodiscard]] std::string shutdown_request(const std::string& secret);

}  // namespace kv_suite
