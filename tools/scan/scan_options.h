#pragma once
// The command line of kv-av-scan.

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "common/broker_client.h"
#include "scan_request.h"

namespace kv_scan {

struct scan_options {
  std::vector<std::string> paths;
  bool recursive = false;
  bool only_found = false;
  bool json = false;
  bool no_summary = false;
  std::size_t in_flight = 4;
  double timeout_s = 30;
  request_settings request;
  kv_tools::broker_settings broker;
  bool local = false;
  std::string enable;      // with local
  std::string definition;  // with local
  int verbosity = 0;
};

// Options that name the broker; shared with the other programs that talk to one.
void add_broker_options(CLI::App& app, kv_tools::broker_settings& broker, int& verbosity);
void add_scan_options(CLI::App& app, scan_options& options);

// Parses; returns -1 to go on, or the exit status: 0 after --help, 2 for a wrong command line.
[[nodiscard]] int parse_command_line(CLI::App& app, int argc, char** argv);

}  // namespace kv_scan
