#include "suite_commands.h"

#include <json-c/json.h>

#include <iostream>

#include "common/broker_client.h"
#include "common/kv_json.h"
#include "suite_services.h"

namespace kv_suite {
namespace {

enum control_command { kPing = 3, kShutdown = 9, kFlush = 10, kFlushAll = 12 };

constexpr const char* kPingRequest = "{ \"Command\" : 3 }";

std::string s_text(json_object* object) {
  return json_object_to_json_string_ext(object, KV_JSON_COMPACT | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// Null after telling the person why.
kv_json_ptr s_ask(const command_options& options, const std::string& address,
                  const std::string& request) {
  kv_tools::show_log(options.verbosity);
  try {
    const kv_tools::broker_client client(
        {.url = {}, .user = {}, .password_file = {}, .certificate = {}, .suite_dir = options.dir});
    std::string error;
    kv_json_ptr reply = client.ask(address, request, {}, options.timeout_ms, error);
    if (!reply)
      std::cerr << "kv-av-suite: no answer from " << address << ": " << error << "\n";
    return reply;
  } catch (const kv_tools::broker_error& failure) {
    std::cerr << "kv-av-suite: " << failure.what() << "\n";
    return nullptr;
  }
}

int s_exit_status(json_object* reply) {
  if (reply == nullptr)
    return 2;
  std::int32_t code = -1;
  return kv_json_get_int(reply, "ReturnCode", code) && code == 0 ? 0 : 1;
}

int s_send(const command_options& options, const std::string& request) {
  const kv_json_ptr reply = s_ask(options, options.worker, request);
  if (reply)
    std::cout << s_text(reply.get()) << "\n";
  return s_exit_status(reply.get());
}

}  // namespace

std::string flush_request(const command_options& options) {
  const kv_json_ptr request{json_object_new_object()};
  json_object_object_add(request.get(), "Command",
                         json_object_new_int(options.all ? kFlushAll : kFlush));
  json_object_object_add(request.get(), "RealmID", json_object_new_string(options.realm.c_str()));
  json_object_object_add(request.get(), "SID", json_object_new_string(options.sid.c_str()));
  return s_text(request.get());
}

std::string shutdown_request(const std::string& secret) {
  const kv_json_ptr request{json_object_new_object()};
  json_object_object_add(request.get(), "Command", json_object_new_int(kShutdown));
  json_object_object_add(request.get(), "Secret", json_object_new_string(secret.c_str()));
  return s_text(request.get());
}

int command_ping(const command_options& options) {
  return s_send(options, kPingRequest);
}

int command_flush(const command_options& options) {
  return s_send(options, flush_request(options));
}

int command_shutdown(const command_options& options) {
  std::string secret;
  try {
    secret = kv_tools::read_first_line(options.secret_file);
  } catch (const kv_tools::broker_error& failure) {
    std::cerr << "kv-av-suite: " << failure.what() << "\n";
    return 2;
  }
  return s_send(options, shutdown_request(secret));
}

int command_workers(const command_options& options) {
  const kv_json_ptr reply = s_ask(options, kSuiteQueue, "{\"Command\": \"workers\"}");
  json_object* workers = nullptr;
  if (reply)
    json_object_object_get_ex(reply.get(), "workers", &workers);
  for (std::size_t index = 0; workers != nullptr && index < json_object_array_length(workers);
       ++index) {
    std::cout << s_text(json_object_array_get_idx(workers, index)) << "\n";
  }
  return s_exit_status(reply.get());
}

}  // namespace kv_suite
