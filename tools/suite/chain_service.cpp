#include "chain_service.h"

#include <json-c/json.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "common/kv_json.h"
#include "messaging/kv_shm.h"

namespace kv_suite {
namespace {

constexpr std::int32_t kPing = 3;
constexpr std::int32_t kFailed = -1000;
constexpr std::int32_t kNoSegment = -1;
constexpr char kOwnName = '*';  // in a row's "File-name": the object's name
constexpr int kMaxThreads = 64;
constexpr std::array<std::string_view, 8> kMembers{"code", "reason",   "error", "rows",
                                                   "text", "delay-ms", "never", "threads"};

kv_json_ptr s_parse(const std::string& text) {
  const kv_json_tokener_ptr tokener{json_tokener_new()};
  return kv_json_ptr{
      json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1)};
}

std::string s_print(json_object* object) {
  return json_object_to_json_string_ext(object, KV_JSON_COMPACT | JSON_C_TO_STRING_NOSLASHESCAPE);
}

std::string s_text(json_object* object, const char* key) {
  std::string text;
  static_cast<void>(kv_json_get_text(object, key, text));
  return text;
}

std::int64_t s_number(json_object* object, const char* key, std::int64_t otherwise) {
  std::int64_t number = otherwise;
  static_cast<void>(kv_json_get_int64(object, key, number));
  return number;
}

void s_add(json_object* object, const char* key, const std::string& text) {
  json_object_object_add(object, key, json_object_new_string(text.c_str()));
}
void s_add(json_object* object, const char* key, std::int64_t number) {
  json_object_object_add(object, key, json_object_new_int64(number));
}

std::string s_read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A member that nobody knows is a mistake that would go unseen.
void s_check_members(json_object* spec, const std::string& name) {
  json_object_object_foreach(spec, key, value) {
    static_cast<void>(value);
    if (std::ranges::find(kMembers, std::string_view(key)) == kMembers.end())
      throw std::runtime_error("service " + name + ": unknown member \"" + key + "\"");
  }
}

void s_fill(chain_service& service, json_object* spec) {
  s_check_members(spec, service.name);
  service.code = static_cast<std::int32_t>(s_number(spec, "code", 0));
  service.reason = s_text(spec, "reason");
  service.error = s_text(spec, "error");
  service.text = s_text(spec, "text");
  service.never = s_number(spec, "never", 0) != 0;
  service.delay = std::chrono::milliseconds(s_number(spec, "delay-ms", 0));
  service.threads = static_cast<int>(s_number(spec, "threads", service.threads));
  if (service.threads < 1 || service.threads > kMaxThreads)
    throw std::runtime_error("service " + service.name + ": threads must be 1 to " +
                             std::to_string(kMaxThreads));
  json_object* rows = nullptr;
  if (!json_object_object_get_ex(spec, "rows", &rows))
    return;
  if (!json_object_is_type(rows, json_type_array))
    throw std::runtime_error("service " + service.name + ": rows must be an array");
  service.rows = s_print(rows);
}

// The object of one request.
struct request_object {
  std::string name;
  std::int64_t length;
};

kv_json_ptr s_row(const request_object& object, std::int32_t code, const std::string& reason,
                  const content_type& type) {
  kv_json_ptr row{json_object_new_object()};
  s_add(row.get(), "ReturnCode", code);
  s_add(row.get(), "File-name", object.name);
  s_add(row.get(), "File-size", object.length);
  s_add(row.get(), "MIME-type", type.mime_type);
  s_add(row.get(), "MIME-encoding", type.mime_encoding);
  s_add(row.get(), "File-type", type.text);
  s_add(row.get(), "Extension", type.extension);
  s_add(row.get(), "Object-type", 0);
  s_add(row.get(), "Virusname", reason.empty() ? " " : reason);
  return row;
}

// A described row: the default one with the members that the description names. What is no object
// goes out as it is.
json_object* s_described_row(const chain_service& service, const request_object& object,
                             json_object* description) {
  if (!json_object_is_type(description, json_type_object))
    return json_object_get(description);
  kv_json_ptr row = s_row(object, service.code, service.reason, {});
  json_object_object_foreach(description, key, value) {
    json_object_object_add(row.get(), key, json_object_get(value));
  }
  const std::string name = s_text(row.get(), "File-name");
  if (name.starts_with(kOwnName))
    s_add(row.get(), "File-name", object.name + name.substr(1));
  return row.release();
}

kv_json_ptr s_rows(const chain_service& service, const request_object& object) {
  kv_json_ptr rows{json_object_new_array()};
  if (service.rows.empty()) {
    json_object_array_add(rows.get(), s_row(object, service.code, service.reason, {}).release());
    return rows;
  }
  const kv_json_ptr described = s_parse(service.rows);
  for (std::size_t i = 0; i < json_object_array_length(described.get()); ++i) {
    json_object_array_add(
        rows.get(),
        s_described_row(service, object, json_object_array_get_idx(described.get(), i)));
  }
  return rows;
}

std::string s_reply(const chain_service& service, kv_json_ptr rows) {
  const kv_json_ptr reply{json_object_new_object()};
  s_add(reply.get(), "ReturnCode", service.code);
  if (!service.reason.empty())
    s_add(reply.get(), "Blocking-reason", service.reason);
  if (!service.error.empty())
    s_add(reply.get(), "Error", service.error);
  s_add(reply.get(), "FilesScanned",
        static_cast<std::int64_t>(json_object_array_length(rows.get())));
  json_object_object_add(reply.get(), "Results", rows.release());
  return s_print(reply.get());
}

std::string s_failure(const std::string& error) {
  const kv_json_ptr reply{json_object_new_object()};
  s_add(reply.get(), "ReturnCode", kFailed);
  s_add(reply.get(), "Error", error);
  return s_print(reply.get());
}

std::string s_mimescan_bytes(const request_object& object, std::span<const char> bytes) {
  const auto type = find_content_type(bytes);
  if (!type)
    return s_failure("The magic library cannot be used");
  kv_json_ptr rows{json_object_new_array()};
  json_object_array_add(rows.get(), s_row(object, 0, {}, *type).release());
  return s_reply({}, std::move(rows));
}

std::string s_mimescan(const chain_request& request, json_object* json,
                       const request_object& object) {
  const auto id = static_cast<std::int32_t>(
      std::strtoll(s_text(json, "shmID").c_str(), nullptr, 16));  // as the protocol writes it
  if (id == kNoSegment || s_text(json, "shmID").empty())
    return s_mimescan_bytes(object, request.data);
  kv_shm_segment segment;
  const auto length = static_cast<std::uint64_t>(std::max<std::int64_t>(object.length, 0));
  if (!segment.attach(id, length, kMimescanQueue))
    return s_failure("Failed to attach shared memory segment");
  return s_mimescan_bytes(
      object, {reinterpret_cast<const char*>(segment.bytes().data()), segment.bytes().size()});
}

}  // namespace

chain_service parse_chain_service(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0)
    throw std::runtime_error("a service is NAME=SPEC, not " + text);
  chain_service service;
  service.name = text.substr(0, equals);
  std::string spec = text.substr(equals + 1);
  if (spec.starts_with('@'))
    spec = s_read_file(spec.substr(1));
  if (spec == "mimescan") {
    service.mimescan = true;
    return service;
  }
  const kv_json_ptr parsed = s_parse(spec);
  if (json_object_is_type(parsed.get(), json_type_int)) {
    service.code = json_object_get_int(parsed.get());
  } else if (json_object_is_type(parsed.get(), json_type_object)) {
    s_fill(service, parsed.get());
  } else {
    throw std::runtime_error("service " + service.name +
                             ": the description is no JSON object, number or \"mimescan\"");
  }
  return service;
}

std::optional<std::string> answer_chain_request(const chain_service& service,
                                                const chain_request& request) {
  if (service.never)
    return std::nullopt;
  if (!service.text.empty())
    return service.text;
  const kv_json_ptr json = s_parse(request.json);
  if (!json_object_is_type(json.get(), json_type_object))
    return s_failure("The request is no JSON object");
  if (s_number(json.get(), "Command", 0) == kPing)
    return "{\"ReturnCode\": 0}";
  const request_object object{s_text(json.get(), "ObjectName"),
                              s_number(json.get(), "ObjectLen", 0)};
  return service.mimescan ? s_mimescan(request, json.get(), object)
                          : s_reply(service, s_rows(service, object));
}

std::string show_chain_request(const chain_service& service, const chain_request& request) {
  kv_json_ptr json = s_parse(request.json);
  if (!json)
    json.reset(json_object_new_string(request.json.c_str()));
  const kv_json_ptr line{json_object_new_object()};
  json_object* message = json_object_new_object();
  json_object_object_add(line.get(), "sink", json_object_new_string("chain"));
  json_object_object_add(line.get(), "message", message);
  s_add(message, "service", service.name);
  s_add(message, "data-bytes", static_cast<std::int64_t>(request.data.size()));
  json_object_object_add(message, "request", json.release());
  return s_print(line.get());
}

}  // namespace kv_suite
