#include "activecontent/kvactivecontent_csv.h"

#include <tre/tre.h>

#include <cstdio>
#include <exception>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"

namespace {

// The pattern as the library compiles it: once a thread, and again only after a failure.
class compiled_pattern final : public kv_csv_pattern {
 public:
  compiled_pattern() = default;
  compiled_pattern(const compiled_pattern&) = delete;
  compiled_pattern& operator=(const compiled_pattern&) = delete;
  ~compiled_pattern() override {
    if (ready_) {
      tre_regfree(&regex_);
    }
  }

  int compile() override {
    const int code =
        ready_ ? REG_OK : tre_regcomp(&regex_, KV_CSV_INJECTION_PATTERN, REG_EXTENDED | REG_NOSUB);
    ready_ = code == REG_OK;
    return code;
  }
  kv_csv_match match(const char* cell) override {
    switch (tre_regexec(&regex_, cell, 0, nullptr, 0)) {
      case REG_OK:
        return kv_csv_match::yes;
      case REG_NOMATCH:
        return kv_csv_match::no;
      default:
        return kv_csv_match::failed;
    }
  }

 private:
  regex_t regex_{};
  bool ready_ = false;
};

std::int32_t s_fail_to_compile(int code, char* error) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kvactivecontent_csv_command",
            "Error compiling regex \"%s\". tre errorcode %d", KV_CSV_INJECTION_PATTERN, code);
  static_cast<void>(std::snprintf(error, KV_REASON_SIZE, "Error compiling regex"));
  return KV_RESULT_FAILED;
}

std::string_view s_bytes(const scanobject& job) {
  if (job.data == nullptr || job.object_length <= 0) {
    return {};
  }
  return {static_cast<const char*>(job.data), static_cast<std::size_t>(job.object_length)};
}

}  // namespace

std::int32_t kv_csv_check(std::string_view bytes, kv_csv_pattern& pattern, kv_simd_level level,
                          std::pmr::memory_resource& memory, char* reason, char* error) {
  constexpr const char* kDetector = "kvactivecontent_csv_command";
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Checking for CSV injection");
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "%s(): checking for BAI file", kDetector);
  // Statement lines and cells are those of a text that a zero byte ends.
  const std::string_view text = bytes.substr(0, bytes.find('\0'));
  if (kv_csv_is_bai(text, level)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kDetector, "This file is BAI, not CSV");
    return KV_RESULT_CLEAN;
  }
  const char delimiter = kv_csv_choose_delimiter(bytes, level);
  if (delimiter == '\0') {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, kDetector, "CSV validation failed");
    return KV_RESULT_CLEAN;
  }
  const int code = pattern.compile();
  if (code != REG_OK) {
    return s_fail_to_compile(code, error);
  }
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Tokenizing the file with '%c' delimiter", delimiter);
  return kv_csv_find_injection(text, delimiter, pattern, level, memory, reason, error);
}

std::int32_t kvactivecontent_csv_command(scanobject* job, char* reason, char* error) {
  thread_local compiled_pattern pattern;
  std::int32_t rc = KV_RESULT_FAILED;
  KV_TRACE_SCOPE(rc);
  try {
    rc = kv_csv_check(s_bytes(*job), pattern, kv_best_simd_level(),
                      *std::pmr::new_delete_resource(), reason, error);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
    static_cast<void>(std::snprintf(error, KV_REASON_SIZE, "%s", failure.what()));
  }
  return rc;
}
