#define KV_LOG_UNIT "kv_worker_RecursiveScan"
#include "worker/kv_worker_RecursiveScan_service.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "common/kv_json.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"
#include "messaging/kvhlp_replies.h"

namespace {

constexpr const char* kFunction = "s_kv_worker_RecursiveScanWithService";
constexpr const char* kQueuePrefix = "kv-av-";
constexpr const char* kNoReason = "Could not get blocking reason - returning generic message";
constexpr const char* kPolicyViolation = "Policy Violation";
constexpr const char* kNotCompleted = "Scan could not be completed";
constexpr const char* kNoResult = "Failed to allocate results struct for this scan";
constexpr const char* kNoVirus = " ";  // a file without blocking reason is sent with a blank

std::string s_get_text(json_object* object, const char* key) {
  const char* text = nullptr;
  static_cast<void>(kv_json_find_text(object, key, text));
  return text == nullptr ? "" : text;
}

std::int32_t s_get_code(json_object* object) {
  std::int32_t code = 0;
  if (!kv_json_get_int(object, "ReturnCode", code)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Object %s not found", "ReturnCode");
  }
  return code;
}

// Rows are named below the object: a name that is not the object's own, or below it, is put there.
std::string s_row_name(const std::string& reported, const std::string& object_name) {
  if (reported == object_name || reported.starts_with(object_name + "/")) {
    return reported;
  }
  return object_name + "/" + reported;
}

std::string s_row_reason(json_object* row) {
  std::string reason = s_get_text(row, "Blocking-reason");
  if (!reason.empty()) {
    return reason;
  }
  reason = s_get_text(row, "Virusname");
  return reason == kNoVirus ? "" : reason;
}

char* s_copy(const std::string& text) {
  return strdup(text.c_str());
}

kv_file_scan_result_ptr s_parse_row(json_object* row, const char* object_name) {
  kv_file_scan_result_ptr file{kv_worker_new_file_scan_result()};
  if (!file) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "Failed to allocate file scan result struct");
    return nullptr;
  }
  std::int64_t size = 0;
  static_cast<void>(kv_json_get_int64(row, "File-size", size));
  static_cast<void>(kv_json_get_int(row, "Object-type", file->object_type));
  file->return_code = s_get_code(row);
  file->file_name = s_copy(s_row_name(s_get_text(row, "File-name"), object_name));
  file->file_size = size > 0 ? static_cast<std::uint64_t>(size) : 0;
  file->mime_type = s_copy(s_get_text(row, "MIME-type"));
  file->mime_encoding = s_copy(s_get_text(row, "MIME-encoding"));
  file->file_type = s_copy(s_get_text(row, "File-type"));
  file->extension = s_copy(s_get_text(row, "Extension"));
  file->blocking_reason = s_copy(s_row_reason(row));
  return file;
}

const char* s_printable(const char* text) {
  return text == nullptr ? "" : text;
}

void s_log_row(const kv_file_scan_result_t& file) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kFunction,
            "Parsed JSON reply:\nReturnCode: %d\nFile-name: %s\nMIME-type: %s\nEncoding: %s\n"
            "File-type: %s\nFile-size: %d\nExtension: %s\nBlocking reason: %s",
            file.return_code, s_printable(file.file_name), s_printable(file.mime_type),
            s_printable(file.mime_encoding), s_printable(file.file_type),
            static_cast<int>(file.file_size), s_printable(file.extension),
            s_printable(file.blocking_reason));
  // A file that is clean and yet names malware has been cleaned by the service.
  if (file.return_code == KV_RESULT_CLEAN && *s_printable(file.blocking_reason) != '\0') {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, kFunction, "Malware cleaned: %s", file.blocking_reason);
  }
}

void s_parse_rows(json_object* reply, const char* object_name, kv_scan_result_t* result) {
  std::int32_t scanned = 0;
  if (!kv_json_get_int(reply, "FilesScanned", scanned)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Object %s not found", "FilesScanned");
  }
  json_object* rows = nullptr;
  if (!json_object_object_get_ex(reply, "Results", &rows) ||
      !json_object_is_type(rows, json_type_array)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Object %s not found", "Results");
    return;
  }
  const std::size_t count = json_object_array_length(rows);
  for (std::size_t i = 0; i < count; ++i) {
    const kv_file_scan_result_ptr file =
        s_parse_row(json_object_array_get_idx(rows, i), object_name);
    if (!file) {
      return;
    }
    s_log_row(*file);
    static_cast<void>(kv_worker_add_file_scan_result(result, file.get()));
  }
}

std::string s_reason_or(json_object* reply, const char* generic) {
  std::string reason = s_get_text(reply, "Blocking-reason");
  if (reason.empty()) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "%s", kNoReason);
    reason = generic;
  }
  return reason;
}

kv_service_answer_t s_invalid(std::int32_t code, const char* service) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "Received invalid replycode: %d", code);
  std::string text =
      "Invalid reply code " + std::to_string(code) + " received from service " + service;
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "%s", text.c_str());
  return {KV_RESULT_FAILED, std::move(text)};
}

kv_service_answer_t s_failed(json_object* reply, const char* service) {
  std::string text = s_get_text(reply, "Error");
  if (text.empty()) {
    text = std::string("Service ") + service + " failed";
  }
  return {KV_RESULT_FAILED, text};
}

constexpr bool s_is_not_completed(std::int32_t code) {
  return code <= -100 && code >= -198;  // -101 to -198 are taken over as -100
}

// What the code of a reply means, before any fallback.
kv_service_answer_t s_judge(json_object* reply, std::int32_t code, const char* service) {
  if (code == KV_RESULT_CLEAN) {
    return {KV_RESULT_CLEAN, {}};
  }
  if (code == KV_RESULT_FAILED) {
    return s_failed(reply, service);
  }
  if (s_is_not_completed(code)) {
    return {KV_RESULT_NOT_READABLE, s_reason_or(reply, kNotCompleted)};
  }
  if (code <= -199) {
    return {code, s_reason_or(reply, kPolicyViolation)};
  }
  return s_invalid(code, service);
}

kv_service_answer_t s_ask(const kv_service_call_t& call, const std::string& service,
                          kv_scan_result_t* result) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kFunction, "Recursive scan with service %s", service.c_str());
  kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  if (!pair || pair->request == nullptr || pair->reply == nullptr) {
    return {KV_RESULT_FAILED, "Failed to allocate request"};
  }
  pair->request->json = call.request_json;
  pair->request->data = call.data;
  pair->request->data_size = call.data == nullptr ? 0 : call.length;
  const std::int32_t timeout_ms = kv_recursive_timeout_ms(call.start_ms, call.limit_ms);
  if (timeout_ms <= 0) {  // a fallback comes after an answer, which may have taken all there was
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "%s", KV_SERVICE_SIDE_TIMEOUT);
    return {KV_RESULT_FAILED, KV_SERVICE_SIDE_TIMEOUT};
  }
  std::array<char, KV_ERROR_TEXT_SIZE> error{};
  const kv_json_ptr reply{call.process->ask(call.process->amqp, service.c_str(), pair.get(),
                                            timeout_ms, 0, 0, error.data())};
  if (!reply) {
    std::string text = error.front() != '\0' ? std::string(error.data())
                                             : "Failed to get reply from service " + service;
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "%s", text.c_str());
    return {KV_RESULT_FAILED, std::move(text)};
  }
  return kv_recursive_read_reply(reply.get(), service.c_str(), call.name, result);
}

}  // namespace

std::int32_t kv_recursive_timeout_ms(std::uint64_t start_ms, std::int64_t limit_ms) {
  if (limit_ms == KV_NO_TIME_LIMIT) {
    return static_cast<std::int32_t>(KV_RECURSIVE_REQUEST_LIMIT_MS);
  }
  const auto elapsed = static_cast<std::int64_t>(kv_current_time_ms() - start_ms);
  const std::int64_t left = std::max<std::int64_t>(limit_ms - elapsed, 0);
  return static_cast<std::int32_t>(std::min<std::int64_t>(left, INT32_MAX));
}

kv_service_answer_t kv_recursive_read_reply(json_object* reply, const char* service,
                                            const char* object_name, kv_scan_result_t* result) {
  std::int32_t code = 0;
  if (!kv_reply_get_return_code(reply, code)) {
    // An answer without a code says nothing about the object, so it must not count as clean.
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Object %s not found", "ReturnCode");
    return {KV_RESULT_FAILED, std::string("Object ReturnCode not found in reply of ") + service};
  }
  s_parse_rows(reply, object_name, result);
  return s_judge(reply, code, service);
}

kv_service_answer_t s_kv_worker_RecursiveScanWithService(const kv_service_call_t& call,
                                                         kv_scan_result_ptr& result) {
  const std::string_view token = call.service;
  const std::size_t plus = token.find(KV_FALLBACK_MARK);
  const std::string primary(token.substr(0, plus));
  kv_service_answer_t answer = s_ask(call, primary, result.get());
  if (answer.code != KV_RESULT_NOT_READABLE) {
    return answer;
  }
  if (plus == std::string_view::npos) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Scan not completed: %s", answer.text.c_str());
    return answer;
  }
  result.reset(kv_worker_new_scan_result());
  if (!result) {
    return {KV_RESULT_FAILED, kNoResult};
  }
  const std::string fallback(token.substr(plus + 1));
  if (fallback.empty()) {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, kFunction,
              "Scan did not complete with service %s, but '+' is not configured for secondary "
              "service. returning SCAN_OK to try next service",
              primary.c_str());
    return {KV_RESULT_CLEAN, {}, true};
  }
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kFunction,
            "Service %s did not complete the scan because %s , but '+' overrides the result'",
            primary.c_str(), answer.text.c_str());
  answer = s_ask(call, kQueuePrefix + fallback, result.get());
  answer.is_fallback = true;
  return answer;
}
