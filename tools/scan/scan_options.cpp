#include "scan_options.h"

namespace kv_scan {
namespace {

constexpr std::size_t kMaxInFlight = 256;

}  // namespace

void add_broker_options(CLI::App& app, kv_tools::broker_settings& broker, int& verbosity) {
  const std::string group = "Connection";
  app.add_option("--dir", broker.suite_dir,
                 "Folder of a running kv-av-suite: gives broker, user, password and certificate")
      ->group(group);
  app.add_option("--broker", broker.url, "Broker, amqps://HOST:PORT (or KV_AV_BROKER)")
      ->group(group);
  app.add_option("--broker-user", broker.user, "User (or KV_AV_BROKER_USER)")->group(group);
  app.add_option("--broker-password-file", broker.password_file,
                 "File whose first line is the password (or KV_AV_BROKER_PASSWORD_FILE, or the "
                 "password itself in KV_AV_BROKER_PASSWORD)")
      ->group(group);
  app.add_option("--broker-cert", broker.certificate,
                 "Trusted authorities, PEM (or KV_AV_BROKER_CERT)")
      ->group(group);
  app.add_flag("-v,--verbose", verbosity, "Show the connection's log; -vv and -vvv more of it")
      ->group(group);
}

void add_scan_options(CLI::App& app, scan_options& options) {
  app.add_option("PATH", options.paths, "Files, folders (with -r), or - for standard input")
      ->required();
  app.add_flag("-r,--recursive", options.recursive, "Scan folders with all they hold");
  app.add_flag("-i,--infected", options.only_found, "Print only what was found, and errors");
  app.add_flag("--json", options.json, "One JSON object per line, nothing else on standard output");
  app.add_flag("--no-summary", options.no_summary, "No summary at the end");
  app.add_option("-j,--jobs", options.in_flight, "Requests in flight")
      ->check(CLI::Range(std::size_t{1}, kMaxInFlight))
      ->capture_default_str();
  app.add_option("--timeout", options.timeout_s, "Seconds that one scan may take; 0 for no limit")
      ->check(CLI::Range(0.0, 2000000.0))
      ->capture_default_str();
  app.add_option("--realm", options.request.realm, "Realm whose definition applies")
      ->capture_default_str();
  app.add_option("--sid", options.request.sid, "SID whose definition applies")
      ->capture_default_str();
  app.add_option("--services", options.request.services,
                 "Services that embedded content goes to, separated by ;")
      ->capture_default_str();
  add_broker_options(app, options.broker, options.verbosity);

  const std::string group = "Without a broker";
  CLI::Option* local = app.add_flag("--local", options.local,
                                    "Scan in this process; embedded content counts as clean")
                           ->group(group);
  CLI::Option* enable = app.add_option("--enable", options.enable,
                                       "Switches that are on: NAME,NAME... or all of them: all")
                            ->needs(local)
                            ->group(group);
  app.add_option("--definition", options.definition, "JSON file of switches: {\"NAME\": 1, ...}")
      ->needs(local)
      ->excludes(enable)
      ->group(group);
}

int parse_command_line(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return -1;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
}

}  // namespace kv_scan
