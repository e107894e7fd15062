#include "suite_run.h"

#include <unistd.h>
#include <csignal>

#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "broker.h"
#include "chain_serve.h"
#include "chain_service.h"
#include "file_helpers.h"
#include "line_printer.h"
#include "service_messages.h"
#include "suite_folder.h"
#include "suite_services.h"

namespace kv_suite {
namespace {

sigset_t s_block_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // inherited by every thread that follows
  std::signal(SIGPIPE, SIG_IGN);
  return signals;
}

broker_config s_broker_config(const run_options& options, const suite_folder& folder) {
  const std::size_t colon = options.listen.rfind(':');
  if (colon == std::string::npos || colon + 1 == options.listen.size()) {
    throw std::runtime_error("--listen wants HOST:PORT, not " + options.listen);
  }
  broker_config config;
  config.host = options.listen.substr(0, colon);
  config.port = options.listen.substr(colon + 1);
  config.limits = options.limits;
  if (!options.plain) {
    make_certificates(folder.certificates());
    config.certificate_path = folder.certificates().certificate;
    config.key_path = folder.certificates().key;
  }
  return config;
}

// Name under which clients reach the listener; the certificate is made for it.
std::string s_client_host(const std::string& host) {
  return host == "127.0.0.1" || host == "0.0.0.0" || host == "::" ? "localhost" : host;
}

std::string s_url(const run_options& options, const std::string& host, const std::string& port) {
  return (options.plain ? "amqp://" : "amqps://") + s_client_host(host) + ":" + port;
}

std::string s_first_screen(const run_options& options, const suite_folder& folder,
                           const std::string& host, const std::string& port) {
  const std::string url = s_url(options, host, port);
  const std::string certificate =
      options.plain ? "" : " --broker-cert " + folder.certificates().authority;
  return "kv-av-suite listens on " + host + ":" + port +
         (options.plain ? " (AMQP 1.0, plain TCP: for measurements only)\n"
                        : " (AMQP 1.0, TLS)\n") +
         "  folder    " + folder.path() + "\n" + "  user      " + options.user + ", password in " +
         folder.password_file() + "\n" +
         "  a worker  kv-av-activecontent --console-mode --basedir DIR --broker " + url +
         " --broker-user " + options.user + " --broker-password \"$(cat " + folder.password_file() +
         ")\"" + certificate + "\n" + "  a scan    kv-av-scan --dir " + folder.path() +
         " FILE...\n" +
         "This is no production broker: it keeps messages in memory and serves one machine.\n"
         "Press Ctrl-C to end it.\n";
}

std::string s_definitions(const run_options& options, const suite_folder& folder) {
  if (!options.definitions.empty())
    return options.definitions;
  if (!std::filesystem::exists(folder.definitions_file())) {
    write_private_file(folder.definitions_file(), example_definitions());
  }
  return folder.definitions_file();
}

void s_add_services(broker& server, suite_services& services) {
  using method = std::string (suite_services::*)(const std::string&);
  const auto add = [&](const char* queue, method answer) {
    server.add_service(queue, make_json_service([&services, answer](const std::string& request) {
                         return (services.*answer)(request);
                       }));
  };
  add(kControlQueue, &suite_services::control);
  add(kLogQueue, &suite_services::log);
  add(kEventQueue, &suite_services::event);
  add(kSuiteQueue, &suite_services::suite);
}

std::vector<std::string> s_chain_services(const run_options& options) {
  std::vector<std::string> services = options.services;
  if (options.control && options.mimescan)
    services.push_back(std::string(kMimescanQueue) + "=mimescan");
  return services;
}

// Tells in a file, while the broker serves, where it is.
class announcement {
 public:
  announcement(std::string path, const std::string& line) : path_(std::move(path)) {
    write_private_file(path_, line + "\n");
  }
  ~announcement() { ::unlink(path_.c_str()); }
  announcement(const announcement&) = delete;
  announcement& operator=(const announcement&) = delete;

 private:
  std::string path_;
};

void s_serve(const run_options& options, const sigset_t& end_signals) {
  const suite_folder folder(options.dir);
  password_store passwords;
  folder.prepare_users(options.user, passwords);
  const broker_config config = s_broker_config(options, folder);
  const auto note = [&](const std::string& line) {
    if (!options.quiet)
      std::cerr << line + "\n";
  };
  line_printer printer(STDOUT_FILENO);
  definitions_file definitions(s_definitions(options, folder), note);
  suite_services services(definitions, [&](std::string line) { printer.print(std::move(line)); });
  broker server(config, passwords, note);
  if (options.control)
    s_add_services(server, services);
  server.start();
  const std::string port = std::to_string(server.port());
  const announcement url(folder.url_file(), s_url(options, config.host, port));
  const chain_process chain(folder.path(), s_chain_services(options));
  const announcement address(folder.listen_file(), config.host + ":" + port);
  if (!options.quiet)
    std::cerr << s_first_screen(options, folder, config.host, port);
  int signal = 0;
  sigwait(&end_signals, &signal);
  server.stop();
}

}  // namespace

int run_suite(const run_options& options) {
  const sigset_t end_signals = s_block_end_signals();
  try {
    s_serve(options, end_signals);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "kv-av-suite: " << failure.what() << "\n";
    return 2;
  }
}

}  // namespace kv_suite
