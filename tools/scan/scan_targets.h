#pragma once
// Which files a run looks at, and their bytes. Names are bytes, not text.

#include <span>
#include <string>
#include <vector>

#include "file_kind.h"

namespace kv_scan {

// One thing to scan, or one that cannot be.
struct scan_target {
  std::string path;   // as given or as found; "-" is standard input
  std::string error;  // not empty: told instead of scanned
};

// Files in the order in which they were given, those of a folder by name. A folder needs recursive;
// below it symbolic links are not followed and only regular files count.
[[nodiscard]] std::vector<scan_target> collect_targets(const std::vector<std::string>& arguments,
                                                       bool recursive);

// The whole object with what libmagic says of it.
struct loaded_object {
  std::vector<char> data;
  file_kind kind;
};

// Throws std::runtime_error with the reason.
[[nodiscard]] loaded_object load_object(const std::string& path, const file_kind_reader& kinds);

}  // namespace kv_scan
