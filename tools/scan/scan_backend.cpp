#include "scan_backend.h"

#include <json-c/json.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "activecontent/kvactivecontent_dispatch.h"
#include "activecontent/kvactivecontent_switches.h"
#include "common/kv_json.h"
#include "common/kv_time.h"

namespace kv_scan {
namespace {

// What a request may take beyond its scan: transfer, and the queue before it.
constexpr std::int32_t kGraceMs = 5'000;
// A request without limit of its own waits this long.
constexpr std::int32_t kNoLimitMs = 600'000;

std::string s_request_text(const object_description& object, const request_settings& settings) {
  const kv_json_ptr request = make_request(object, settings, make_event_id());
  return json_object_to_json_string_ext(request.get(), KV_JSON_COMPACT);
}

void s_switch_on(ActiveContent_t& switches, const std::string& name, std::int32_t value) {
  for (const auto& [known, slot] : KV_AC_SWITCHES) {
    if (known == name) {
      switches.slots[slot] = static_cast<std::uint8_t>(value);
      return;
    }
  }
  std::string text = "there is no switch \"" + name + "\"; there are:";
  for (const auto& [known, slot] : KV_AC_SWITCHES)
    text += " " + std::string(known);
  throw std::runtime_error(text);
}

scan_verdict s_verdict(std::int32_t code, const object_description& object, const char* reason,
                       const char* error) {
  scan_verdict verdict;
  verdict.code = code;
  verdict.rows.push_back({code, object.name, reason});
  if (code == KV_RESULT_CLEAN) {
    verdict.status = scan_status::ok;
  } else if (code <= -199 && code != KV_RESULT_FAILED) {
    verdict.status = scan_status::found;
    verdict.reason = reason[0] == '\0' ? "Return code " + std::to_string(code) : reason;
  } else {
    verdict.error = error[0] == '\0' ? "Return code " + std::to_string(code) : error;
  }
  return verdict;
}

scan_verdict s_scan_here(const object_description& object, std::span<const char> data,
                         const ActiveContent_t& switches, const request_settings& settings) {
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const kv_json_ptr request = make_request(object, settings, "local");
  const kv_scanobject_ptr job{kv_worker_GetScanJobDetails(request.get(), error.data())};
  const kv_scan_result_ptr consolidated{kv_worker_new_scan_result()};
  if (!job || !consolidated)
    return failed_verdict(error.data());
  *job->ActiveContent = switches;
  job->data = data.empty() ? nullptr : data.data();
  job->start_ms = kv_current_time_ms();
  job->limit_ms = settings.timeout_ms > 0 ? settings.timeout_ms : KV_NO_TIME_LIMIT;
  const std::int32_t code =
      kvactivecontent_dispatch(job.get(), consolidated.get(), reason.data(), error.data(), 0);
  job->data = nullptr;
  return s_verdict(code, object, reason.data(), error.data());
}

}  // namespace

scan_function scan_by_broker(const kv_tools::broker_client& client, request_settings settings) {
  return [&client, settings = std::move(settings)](const object_description& object,
                                                   std::span<const char> data) {
    const std::int32_t limit = settings.timeout_ms > 0 ? settings.timeout_ms : kNoLimitMs;
    std::string error;
    const kv_json_ptr reply =
        client.ask(kService, s_request_text(object, settings), data, limit + kGraceMs, error);
    return reply ? read_verdict(reply.get()) : failed_verdict(error);
  };
}

scan_function scan_here(ActiveContent_t switches, request_settings settings) {
  return [switches, settings = std::move(settings)](const object_description& object,
                                                    std::span<const char> data) {
    return s_scan_here(object, data, switches, settings);
  };
}

ActiveContent_t switches_from_names(const std::string& names, char separator) {
  ActiveContent_t switches{};
  if (names == "all") {
    for (const auto& [name, slot] : KV_AC_SWITCHES)
      switches.slots[slot] = 1;
    return switches;
  }
  std::size_t start = 0;
  while (start <= names.size()) {
    const std::size_t end = std::min(names.find(separator, start), names.size());
    if (end > start)
      s_switch_on(switches, names.substr(start, end - start), 1);
    start = end + 1;
  }
  return switches;
}

ActiveContent_t switches_from_file(const std::string& path) {
  const kv_json_ptr root{json_object_from_file(path.c_str())};
  if (!json_object_is_type(root.get(), json_type_object)) {
    throw std::runtime_error(path + " is no JSON object of switches");
  }
  ActiveContent_t switches{};
  json_object_object_foreach(root.get(), name, value) {
    s_switch_on(switches, name, json_object_get_int(value));
  }
  return switches;
}

}  // namespace kv_scan
