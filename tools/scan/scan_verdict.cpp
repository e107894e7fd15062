#include "scan_verdict.h"

#include <utility>

#include "common/kv_json.h"
#include "worker/kv_worker_scan_types.h"

namespace kv_scan {
namespace {

std::string s_text(json_object* object, const char* key) {
  std::string text;
  static_cast<void>(kv_json_get_text(object, key, text));
  return text;
}

file_row s_row(json_object* from) {
  file_row row;
  static_cast<void>(kv_json_get_int(from, "ReturnCode", row.code));
  row.name = s_text(from, "File-name");
  row.reason = s_text(from, "Virusname");
  if (row.reason == " ")
    row.reason.clear();  // how the reply writes "none"
  return row;
}

// Text for an error code without one of its own.
std::string s_error_text(std::int32_t code) {
  if (code == KV_RESULT_NOT_READABLE)
    return "The object could not be read";
  return "Return code " + std::to_string(code);
}

bool s_is_found(std::int32_t code) {
  return code <= -199 && code != KV_RESULT_FAILED;
}

}  // namespace

scan_verdict read_verdict(json_object* reply) {
  scan_verdict verdict;
  if (!json_object_is_type(reply, json_type_object) ||
      !kv_json_get_int(reply, "ReturnCode", verdict.code)) {
    return failed_verdict("The reply has no return code");
  }
  json_object* results = nullptr;
  if (json_object_object_get_ex(reply, "Results", &results) &&
      json_object_is_type(results, json_type_array)) {
    for (std::size_t index = 0; index < json_object_array_length(results); ++index) {
      verdict.rows.push_back(s_row(json_object_array_get_idx(results, index)));
    }
  }
  if (verdict.code == KV_RESULT_CLEAN) {
    verdict.status = scan_status::ok;
    return verdict;
  }
  const std::string reason = s_text(reply, "Blocking-reason");
  if (s_is_found(verdict.code)) {
    verdict.status = scan_status::found;
    verdict.reason = reason.empty() ? "Return code " + std::to_string(verdict.code) : reason;
    return verdict;
  }
  verdict.error = s_text(reply, "Error");
  if (verdict.error.empty())
    verdict.error = reason.empty() ? s_error_text(verdict.code) : reason;
  return verdict;
}

scan_verdict failed_verdict(std::string error) {
  scan_verdict verdict;
  verdict.code = KV_RESULT_FAILED;
  verdict.error = std::move(error);
  return verdict;
}

const char* status_word(scan_status status) {
  switch (status) {
    case scan_status::ok:
      return "ok";
    case scan_status::found:
      return "found";
    default:
      return "error";
  }
}

}  // namespace kv_scan
