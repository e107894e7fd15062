#pragma once
// Whole small files: read, and written so that no reader sees a half and no other user sees
// secrets. Failures are thrown as std::system_error naming the file. Any thread.

#include <string>
#include <string_view>

namespace kv_suite {

[[nodiscard]] std::string read_file(const std::string& path);
// Writes to a temporary name (mode 0600) beside the file and renames it.
void write_private_file(const std::string& path, std::string_view content);

}  // namespace kv_suite
