// kv-av-suite: broker, control service and sinks of a single machine.

#include <CLI/CLI.hpp>

#include "chain_serve.h"
#include "suite_commands.h"
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
  run->add_option("--service", options.services,
                  "NAME=SPEC: a service of a scan chain; SPEC is JSON, mimescan or @FILE");
  run->add_flag("!--no-mimescan", options.mimescan, "Do not serve kv-av-mimescan");
  run->add_flag("--quiet", options.quiet, "No first screen and no notes on standard error");
}

// A command to a running suite; WORKER where it goes to one.
CLI::App* s_add_command(CLI::App& app, kv_suite::command_options& options, const char* name,
                        const char* help, const char* worker_help) {
  CLI::App* command = app.add_subcommand(name, help);
  if (worker_help != nullptr) {
    command->add_option("WORKER", options.worker, worker_help)->required();
  }
  command->add_option("--dir", options.dir, "Folder of the running suite")->required();
  command->add_option("--timeout", options.timeout_ms, "Milliseconds to wait for the answer")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command->add_flag("-v,--verbose", options.verbosity, "Show the connection's log; -vv more of it");
  return command;
}

void s_add_commands(CLI::App& app, kv_suite::command_options& options) {
  constexpr const char* kWorker = "Name of the worker, as `workers` lists it";
  s_add_command(app, options, "ping", "Ask a worker or a service whether it is there",
                "Name of the worker, or a service such as kv-av-activecontent");
  CLI::App* flush = s_add_command(app, options, "flush",
                                  "Make a worker forget its active-content definitions", kWorker);
  flush->add_option("--realm", options.realm, "Only those of this realm");
  flush->add_option("--sid", options.sid, "Only those of this SID");
  flush->add_flag("--all", options.all, "All of them, with the command for all");
  s_add_command(app, options, "shutdown", "End a worker that was started with a secret", kWorker)
      ->add_option("--secret-file", options.secret_file, "File whose first line is that secret")
      ->required();
  s_add_command(app, options, "workers", "List the workers that have registered", nullptr);
}

void s_add_serve(CLI::App& app, kv_suite::serve_options& options) {
  CLI::App* serve =
      app.add_subcommand("serve", "Serve queues of a running suite as services of a scan chain");
  serve->add_option("--dir", options.dir, "Folder of the running suite")->required();
  serve->add_option("--service", options.services, "NAME=SPEC; SPEC is JSON, mimescan or @FILE")
      ->required();
  serve->add_flag("-v,--verbose", options.verbosity, "Show the connection's log; -vv more of it");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Broker, control service and sinks for one machine: for a first minute, for "
      "integration and for tests. It is no production broker."};
  app.require_subcommand(1);
  kv_suite::run_options run;
  kv_suite::command_options command;
  kv_suite::serve_options serve;
  s_add_run(app, run);
  s_add_serve(app, serve);
  s_add_commands(app, command);
  CLI11_PARSE(app, argc, argv);
  if (app.got_subcommand("ping"))
    return kv_suite::command_ping(command);
  if (app.got_subcommand("flush"))
    return kv_suite::command_flush(command);
  if (app.got_subcommand("shutdown"))
    return kv_suite::command_shutdown(command);
  if (app.got_subcommand("workers"))
    return kv_suite::command_workers(command);
  if (app.got_subcommand("serve"))
    return kv_suite::serve_chain(serve);
  return kv_suite::run_suite(run);
}
