#include "common/broker_client.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "common/kvhlp_network.h"
#include "logging/log-helper.h"
#include "messaging/kv_qpid_proton_mt_interface.h"

namespace kv_tools {
namespace {

// What a connection needs, from wherever it came.
struct connection {
  std::string url;
  std::string user;
  std::string password;
  std::string certificate;
};

std::string s_environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

// The first of them that is given.
std::string s_first_of(const std::string& option, const char* variable) {
  return option.empty() ? s_environment(variable) : option;
}

std::string s_password(const broker_settings& settings) {
  const std::string file = s_first_of(settings.password_file, kPasswordFileVariable);
  return file.empty() ? s_environment(kPasswordVariable) : read_first_line(file);
}

// The folder's own values stand behind options and before the environment: who names a folder means
// the suite that runs in it.
void s_fill_from_suite(const broker_settings& settings, connection& out) {
  const std::string& dir = settings.suite_dir;
  out.url = settings.url.empty() ? read_first_line(dir + "/url") : settings.url;
  out.user = settings.user.empty() ? read_first_line(dir + "/user") : settings.user;
  out.password =
      read_first_line(settings.password_file.empty() ? dir + "/password" : settings.password_file);
  out.certificate = settings.certificate.empty() && out.url.starts_with("amqps:")
                        ? dir + "/ca.pem"
                        : settings.certificate;
}

connection s_resolve(const broker_settings& settings) {
  connection out;
  if (!settings.suite_dir.empty()) {
    s_fill_from_suite(settings, out);
    return out;
  }
  out = {s_first_of(settings.url, kUrlVariable), s_first_of(settings.user, kUserVariable),
         s_password(settings), s_first_of(settings.certificate, kCertificateVariable)};
  const std::array<std::pair<const std::string*, const char*>, 3> needed{{
      {&out.url, "no broker is given: use --broker, --dir or KV_AV_BROKER"},
      {&out.user, "no user is given: use --broker-user or KV_AV_BROKER_USER"},
      {&out.password, "no password is given: use --broker-password-file or KV_AV_BROKER_PASSWORD"},
  }};
  for (const auto& [value, text] : needed) {
    if (value->empty())
      throw broker_error(text);
  }
  return out;
}

kv_amqp_config_ptr s_make_config(const connection& from) {
  kv_amqp_config_ptr config{kv_amqp_config_new()};
  const kvhlp_url_ptr url{kvhlp_url_new()};
  if (!config || !url || kvhlp_split_url(url.get(), from.url.c_str()) != 0) {
    throw broker_error("the broker's address has no host: " + from.url);
  }
  const std::string_view scheme = url->scheme;
  const bool has_port =
      std::string_view(from.url).find(std::string(":") + url->port) != std::string_view::npos;
  config->broker_host = strdup(url->host);
  config->broker_port = strdup(has_port || scheme != "amqps" ? url->port : "5671");
  config->broker_user = strdup(from.user.c_str());
  config->broker_password = strdup(from.password.c_str());
  if (!from.certificate.empty())
    config->cert_path = strdup(from.certificate.c_str());
  config->plain_tcp = scheme == "amqp" && from.certificate.empty() ? 1 : 0;
  return config;
}

}  // namespace

std::string read_first_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!file || !std::getline(file, line))
    throw broker_error("cannot read " + path);
  if (line.ends_with('\r'))
    line.pop_back();
  return line;
}

void show_log(int verbosity) {
  constexpr std::array<std::uint32_t, 5> kLevels{KV_LOG_LEVEL_OFF, KV_LOG_LEVEL_ERROR,
                                                 KV_LOG_LEVEL_INFO, KV_LOG_LEVEL_DEBUG,
                                                 KV_LOG_LEVEL_TRACE};
  const auto index = static_cast<std::size_t>(std::min(std::max(verbosity, 0), 4));
  log_set_level(kLevels[index]);
  log_set_quiet(index == 0 ? 1 : 0);
  log_set_screentrace(index == 0 ? 0 : 1);
}

broker_client::broker_client(const broker_settings& settings, std::uint32_t limit_ms) {
  const connection resolved = s_resolve(settings);
  config_ = s_make_config(resolved);
  if (kv_amqp_init(config_.get()) != 0 || !kv_qpid_wait_connected(config_.get(), limit_ms)) {
    kv_amqp_deinit(config_.get());
    throw broker_error("no connection to " + resolved.url +
                       ": is the broker there, are user, password and certificate right? "
                       "(--verbose shows the reason)");
  }
}

broker_client::~broker_client() {
  close();
}

void broker_client::close() {
  kv_amqp_deinit(config_.get());
}

void broker_client::serve(const std::string& queue, kv_service_request_callback callback,
                          void* argument, const std::atomic<std::int32_t>& stop, int threads) {
  if (kv_qpid_start_service_handler_threads(config_.get(), queue.c_str(), callback, argument, &stop,
                                            threads) != 0) {
    throw broker_error("cannot serve " + queue);
  }
}

kv_json_ptr broker_client::ask(const std::string& service, const std::string& json,
                               std::span<const char> data, std::int32_t timeout_ms,
                               std::string& error) const {
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->request->json = json.c_str();
  pair->request->data = data.empty() ? nullptr : data.data();
  pair->request->data_size = data.size();
  std::array<char, KV_ERROR_TEXT_SIZE> reason{};
  kv_json_ptr reply{kv_amqp_send_recv_json_data(config_.get(), service.c_str(), pair.get(),
                                                timeout_ms, 0, 0, reason.data())};
  if (!reply)
    error = reason[0] == '\0' ? "the reply is no JSON" : reason.data();
  return reply;
}

}  // namespace kv_tools
