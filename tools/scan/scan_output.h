#pragma once
// How results are shown: text lines, JSON lines, summary, progress. File names and reasons come
// from strangers, so nothing of them reaches the terminal unescaped. Pure, but for the progress
// bar.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "scan_verdict.h"

namespace kv_scan {

struct scan_result {
  std::string path;
  scan_verdict verdict;
  std::uint64_t size = 0;
  std::string mime;
  std::string type;
  std::chrono::microseconds time{0};
};

struct scan_totals {
  std::uint64_t files = 0;  // that were judged
  std::uint64_t bytes = 0;
  std::uint64_t found = 0;
  std::uint64_t errors = 0;
  std::chrono::microseconds time{0};
};

// Control characters, what is no UTF-8, and characters that turn the direction of text become
// \xNN per byte.
[[nodiscard]] std::string escape_untrusted(std::string_view text);
// Each byte that is no part of valid UTF-8 becomes U+FFFD.
[[nodiscard]] std::string replace_invalid_utf8(std::string_view text);

// "PATH: OK", "PATH: REASON FOUND" or "PATH: TEXT ERROR", with a line per inner object below.
[[nodiscard]] std::string text_lines(const scan_result& result, bool colour);
// One JSON object on one line.
[[nodiscard]] std::string json_line(const scan_result& result);
[[nodiscard]] std::string summary(const scan_totals& totals);

// 1 when anything was found, else 2 when there was an error, else 0.
[[nodiscard]] int exit_status(const scan_totals& totals);

// Bar on standard error; does nothing unless that is a terminal.
class progress_bar {
 public:
  progress_bar(bool wanted, std::uint64_t total);
  void show(const scan_totals& totals);
  void clear();

 private:
  bool enabled_;
  bool visible_ = false;
  std::uint64_t total_;
  std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace kv_scan
