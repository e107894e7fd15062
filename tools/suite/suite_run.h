#pragma once
// `kv-av-suite run`: broker, services and first screen, until a signal ends it.

#include <string>
#include <vector>

#include "broker_queue.h"

namespace kv_suite {

struct run_options {
  std::string dir;
  std::string listen = "127.0.0.1:5671";
  std::string definitions;  // empty: the folder's own file
  std::string user = "kv-av";
  queue_limits limits = {};  // of each queue
  bool plain = false;        // no TLS
  bool control = true;       // serve the control service, the sinks and kv-av-mimescan
  bool mimescan = true;      // serve kv-av-mimescan
  std::vector<std::string> services = {};  // of a scan chain, NAME=SPEC each
  bool quiet = false;                      // no first screen, no notes
};

// Returns the exit status. SIGTERM and SIGINT are blocked on return.
[[nodiscard]] int run_suite(const run_options& options);

}  // namespace kv_suite
