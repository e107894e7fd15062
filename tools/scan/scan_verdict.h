#pragma once
// What a scan reply says, in the three words that a person wants: clean, found, error. Pure; any
// thread.

#include <json-c/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kv_scan {

enum class scan_status { ok, found, error };

// One row of the reply: the object itself, or something inside it.
struct file_row {
  std::int32_t code = 0;
  std::string name;
  std::string reason;  // empty for none
};

struct scan_verdict {
  scan_status status = scan_status::error;
  std::int32_t code = 0;
  std::string reason;  // of a finding; bytes as the worker sent them
  std::string error;   // of an error
  std::vector<file_row> rows;
};

[[nodiscard]] scan_verdict read_verdict(json_object* reply);
[[nodiscard]] scan_verdict failed_verdict(std::string error);
[[nodiscard]] const char* status_word(scan_status status);  // "ok", "found", "error"

}  // namespace kv_scan
