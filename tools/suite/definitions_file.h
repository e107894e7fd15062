#pragma once
// Active-content definitions per realm and SID, from a JSON file of the form
// {"realm": {"sid": {"HTML_SCRIPT": 1, ...}}}, where "*" as realm or SID stands for any. The file
// is looked at again at each question and read anew when it has changed; while it cannot be read or
// understood the last good content holds. One thread.

#include <json-c/json.h>

#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

#include "common/kv_guard.h"

namespace kv_suite {

class definitions_file {
 public:
  // note is told when the file is read or cannot be.
  definitions_file(std::string path, std::function<void(const std::string&)> note);

  // Array of [name, value] pairs of the best fitting entry: the exact realm before "*", and within
  // it the exact SID before "*". Empty when nothing fits.
  [[nodiscard]] kv_json_ptr lookup(const std::string& realm, const std::string& sid);

 private:
  // What tells one content from the next: file, size, and time of change in nanoseconds.
  using stamp = std::tuple<std::uint64_t, std::int64_t, std::int64_t>;

  void refresh();
  [[nodiscard]] stamp stamp_of_file() const;

  std::string path_;
  std::function<void(const std::string&)> note_;
  stamp seen_{};
  kv_json_ptr root_;
};

// Content of the file that a new suite starts with: every switch but those that also stop plain
// data in XML.
[[nodiscard]] const char* example_definitions();

}  // namespace kv_suite
