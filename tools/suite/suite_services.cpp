#include "suite_services.h"

#include <string_view>

#include "common/kv_json.h"

namespace kv_suite {
namespace {

// Codes of the control protocol that the control service answers.
enum control_command {
  kPing = 3,
  kRegister = 200,
  kHighWaterMark = 201,
  kLowWaterMark = 202,
  kDefinition = 203,
};

constexpr const char* kOk = "{\"ReturnCode\": 0}";
constexpr const char* kFailed = "{\"ReturnCode\": -1}";

// A worker registers every few seconds; one that has been silent for this long is gone.
constexpr std::chrono::seconds kSilence{60};
// More than any machine runs: keeps a client that invents names from filling the memory.
constexpr std::size_t kMaxWorkers = 1000;

kv_json_ptr s_parse(const std::string& text) {
  const kv_json_tokener_ptr tokener{json_tokener_new()};
  return kv_json_ptr{
      json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1)};
}

std::string s_text(json_object* object, const char* key) {
  std::string text;
  static_cast<void>(kv_json_get_text(object, key, text));
  return text;
}

std::string s_line(json_object* object) {
  return json_object_to_json_string_ext(object, KV_JSON_COMPACT | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// A secret is no business of whoever reads the screen or the log of it; its length may be.
kv_json_ptr s_without_secrets(json_object* message) {
  json_object* copy = nullptr;
  if (json_object_deep_copy(message, &copy, nullptr) != 0)
    return nullptr;
  kv_json_ptr shown{copy};
  for (const char* key : {"Secret", "Shutdown-Secret"}) {
    json_object* secret = nullptr;
    if (!json_object_object_get_ex(copy, key, &secret))
      continue;
    const std::string size = std::to_string(json_object_get_string_len(secret));
    json_object_object_add(copy, key,
                           json_object_new_string(("(" + size + " characters)").c_str()));
  }
  return shown;
}

}  // namespace

suite_services::suite_services(definitions_file& definitions,
                               std::function<void(std::string)> print, clock now)
    : definitions_(definitions), print_(std::move(print)), now_(std::move(now)) {}

void suite_services::show(const char* name, json_object* message) {
  const kv_json_ptr line{json_object_new_object()};
  json_object_object_add(line.get(), "sink", json_object_new_string(name));
  json_object_object_add(line.get(), "message", json_object_get(message));
  print_(s_line(line.get()));
}

// Whatever arrives is shown and acknowledged: a text that is no JSON as the text that it is.
std::string suite_services::sink(const char* name, const std::string& request) {
  kv_json_ptr message = s_parse(request);
  if (!message) {
    message.reset(json_object_new_string_len(request.c_str(), static_cast<int>(request.size())));
  }
  show(name, message.get());
  return kOk;
}

std::string suite_services::log(const std::string& request) {
  return sink("log", request);
}

std::string suite_services::event(const std::string& request) {
  return sink("event", request);
}

std::string suite_services::control(const std::string& text) {
  const kv_json_ptr request = s_parse(text);
  std::int32_t command = 0;
  if (!json_object_is_type(request.get(), json_type_object) ||
      !kv_json_get_int(request.get(), "Command", command)) {
    return kFailed;
  }
  if (command == kPing)
    return kOk;
  if (command < kRegister || command > kDefinition)
    return kFailed;
  show("control", s_without_secrets(request.get()).get());
  if (command == kRegister)
    return register_worker(request.get());
  if (command == kDefinition)
    return definition(request.get());
  return kOk;  // the water-mark notices ask for nothing on a single machine
}

std::string suite_services::register_worker(json_object* request) {
  const std::string name = s_text(request, "worker-name");
  if (name.empty())
    return kFailed;
  forget_silent_workers();
  if (!workers_.contains(name) && workers_.size() >= kMaxWorkers)
    return kFailed;
  worker& entry = workers_[name];
  entry.service = s_text(request, "service-name");
  static_cast<void>(kv_json_get_int(request, "Primary", entry.primary));
  ++entry.registrations;
  entry.seen = now_();
  return kOk;
}

void suite_services::forget_silent_workers() {
  const auto limit = now_() - kSilence;
  std::erase_if(workers_, [&](const auto& entry) { return entry.second.seen < limit; });
}

std::string suite_services::definition(json_object* request) {
  kv_json_ptr list = definitions_.lookup(s_text(request, "realmID"), s_text(request, "SID"));
  const kv_json_ptr reply{json_object_new_object()};
  json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
  json_object_object_add(reply.get(), "Active-content-definition", list.release());
  return s_line(reply.get());
}

std::string suite_services::suite(const std::string& text) {
  const kv_json_ptr request = s_parse(text);
  if (!json_object_is_type(request.get(), json_type_object))
    return kFailed;
  const std::string command = s_text(request.get(), "Command");
  if (command == "ping")
    return kOk;
  return command == "workers" ? list_workers() : kFailed;
}

std::string suite_services::list_workers() {
  forget_silent_workers();
  json_object* list = json_object_new_array();
  for (const auto& [name, entry] : workers_) {
    json_object* row = json_object_new_object();
    json_object_object_add(row, "worker-name", json_object_new_string(name.c_str()));
    json_object_object_add(row, "service-name", json_object_new_string(entry.service.c_str()));
    json_object_object_add(row, "Primary", json_object_new_int(entry.primary));
    json_object_object_add(row, "registrations", json_object_new_int(entry.registrations));
    const auto silent = std::chrono::duration_cast<std::chrono::seconds>(now_() - entry.seen);
    json_object_object_add(row, "seconds-ago", json_object_new_int64(silent.count()));
    json_object_array_add(list, row);
  }
  const kv_json_ptr reply{json_object_new_object()};
  json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
  json_object_object_add(reply.get(), "workers", list);
  return s_line(reply.get());
}

}  // namespace kv_suite
