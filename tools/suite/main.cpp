// kv-av-suite: broker, control service and sinks of a single machine.

#include <CLI/CLI.hpp>

#include "suite_run.h"

namespace {

void s_add_run(CLI::App& app, kv_suite::run_options& options) {
  CLI::App* run = app.add_subcommand("run", "Serve until SIGTERM or Ctrl-C");
  run->add_option("--dir", options.dir, "Folder of certificates, users and definitions")
      ->required();
  run->add_option("--listen", options.listen, "Address to listen on; port 0 takes a free one")
      ->capture_default_str();
  run->add_option("--definitions", options.definitions,
                  "Definitions per realm and SID (default: DIR/definitions.json)");
  run->add_option("--user", options.user, "User that is made on the first start")
      ->capture_default_str();
  run->add_option("--queue-messages", options.limits.messages,
                  "Messages that a queue holds before it refuses more")
      ->capture_default_str();
  run->add_option("--queue-bytes", options.limits.bytes,
                  "Bytes that a queue holds before it refuses more")
      ->capture_default_str();
  run->add_flag("--plain", options.plain, "No TLS: for measurements on one machine only");
  run->add_flag("!--no-control", options.control, "Broker only: no control service, no sinks");
  run->add_flag("--quiet", options.quiet, "No first screen and no notes on standard error");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Broker, control service and sinks for one machine: for a first minute, for "
      "integration and for tests. It is no production broker."};
  app.require_subcommand(1);
  kv_suite::run_options run;
  s_add_run(app, run);
  CLI11_PARSE(app, argc, argv);
  if (app.got_subcommand("run"))
    return kv_suite::run_suite(run);
  return 2;
}
