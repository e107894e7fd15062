#include "scan_output.h"

#include <json-c/json.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "common/kv_json.h"

namespace kv_scan {
namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd";

// Length of the well-formed UTF-8 sequence (RFC 3629) that the text begins with and its code point;
// 0 when there is none.
std::size_t s_utf8_length(std::string_view text, char32_t& point) {
  const auto byte = [&](std::size_t index) {
    return static_cast<unsigned char>(index < text.size() ? text[index] : 0);
  };
  const unsigned char first = byte(0);
  point = first;
  if (first < 0x80)
    return 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length)
    return 0;
  point = first & (0x7fU >> length);
  for (std::size_t index = 1; index < length; ++index) {
    if ((byte(index) & 0xc0) != 0x80)
      return 0;
    point = point << 6 | (byte(index) & 0x3fU);
  }
  constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = point >= 0xd800 && point <= 0xdfff;
  return point < kSmallest[length] || point > 0x10ffff || surrogate ? 0 : length;
}

// Characters that move the cursor, or that make a line read other than it is written.
bool s_is_dangerous(char32_t point) {
  return point < 0x20 || (point >= 0x7f && point <= 0x9f) || point == 0x200e || point == 0x200f ||
         (point >= 0x2028 && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069);
}

void s_append_hex(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    std::array<char, 5> text{};
    std::snprintf(text.data(), text.size(), "\\x%02x", static_cast<unsigned char>(byte));
    out += text.data();
  }
}

// "OK", "REASON FOUND" or "TEXT ERROR".
std::string s_outcome(const scan_verdict& verdict) {
  switch (verdict.status) {
    case scan_status::ok:
      return "OK";
    case scan_status::found:
      return escape_untrusted(verdict.reason) + " FOUND";
    default:
      return escape_untrusted(verdict.error) + " ERROR";
  }
}

const char* s_colour(scan_status status) {
  switch (status) {
    case scan_status::ok:
      return "\033[32m";
    case scan_status::found:
      return "\033[31;1m";
    default:
      return "\033[33m";
  }
}

void s_add(json_object* object, const char* key, std::string_view text) {
  const std::string valid = replace_invalid_utf8(text);
  json_object_object_add(object, key,
                         json_object_new_string_len(valid.data(), static_cast<int>(valid.size())));
}

json_object* s_rows(const scan_verdict& verdict) {
  json_object* rows = json_object_new_array();
  for (const file_row& row : verdict.rows) {
    json_object* entry = json_object_new_object();
    s_add(entry, "name", row.name);
    json_object_object_add(entry, "code", json_object_new_int(row.code));
    s_add(entry, "reason", row.reason);
    json_object_array_add(rows, entry);
  }
  return rows;
}

std::string s_number(double value, const char* unit) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f %s", value < 100 ? 2 : 1, value, unit);
  return text.data();
}

std::string s_bytes(double bytes) {
  constexpr std::array<const char*, 4> kUnits{"B", "kB", "MB", "GB"};
  std::size_t unit = 0;
  while (bytes >= 1000 && unit + 1 < kUnits.size()) {
    bytes /= 1000;
    ++unit;
  }
  return unit == 0 ? std::to_string(static_cast<std::uint64_t>(bytes)) + " B"
                   : s_number(bytes, kUnits[unit]);
}

}  // namespace

std::string escape_untrusted(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    char32_t point = 0;
    const std::size_t length = s_utf8_length(text, point);
    const std::string_view piece = text.substr(0, length == 0 ? 1 : length);
    if (length == 0 || s_is_dangerous(point)) {
      s_append_hex(out, piece);
    } else {
      out += piece;
    }
    text.remove_prefix(piece.size());
  }
  return out;
}

std::string replace_invalid_utf8(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    char32_t point = 0;
    const std::size_t length = s_utf8_length(text, point);
    out += length == 0 ? kReplacement : text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string text_lines(const scan_result& result, bool colour) {
  const std::string outcome = s_outcome(result.verdict);
  std::string lines = escape_untrusted(result.path) + ": ";
  lines += colour ? s_colour(result.verdict.status) + outcome + "\033[0m" : outcome;
  lines += "\n";
  const auto& rows = result.verdict.rows;
  for (std::size_t index = 1; index < rows.size(); ++index) {  // the first is the object itself
    const std::string reason = escape_untrusted(rows[index].reason);
    lines += "  " + escape_untrusted(rows[index].name) + ": ";
    lines += rows[index].code == 0 ? "OK"
             : reason.empty()      ? "Return code " + std::to_string(rows[index].code)
                                   : reason + " FOUND";
    lines += "\n";
  }
  return lines;
}

std::string json_line(const scan_result& result) {
  const kv_json_ptr line{json_object_new_object()};
  s_add(line.get(), "path", result.path);
  s_add(line.get(), "status", status_word(result.verdict.status));
  json_object_object_add(line.get(), "code", json_object_new_int(result.verdict.code));
  s_add(line.get(), "reason", result.verdict.reason);
  s_add(line.get(), "error", result.verdict.error);
  s_add(line.get(), "mime", result.mime);
  s_add(line.get(), "type", result.type);
  json_object_object_add(line.get(), "size", json_object_new_uint64(result.size));
  json_object_object_add(line.get(), "microseconds", json_object_new_int64(result.time.count()));
  json_object_object_add(line.get(), "files", s_rows(result.verdict));
  return std::string(json_object_to_json_string_ext(
             line.get(), KV_JSON_COMPACT | JSON_C_TO_STRING_NOSLASHESCAPE)) +
         "\n";
}

std::string summary(const scan_totals& totals) {
  const double seconds = std::max(static_cast<double>(totals.time.count()) / 1e6, 1e-6);
  return "\nSummary\n  Files scanned  " + std::to_string(totals.files) + "\n  Bytes scanned  " +
         s_bytes(static_cast<double>(totals.bytes)) + "\n  Found          " +
         std::to_string(totals.found) + "\n  Errors         " + std::to_string(totals.errors) +
         "\n  Time           " + s_number(seconds, "s") + "\n  Throughput     " +
         s_number(static_cast<double>(totals.files) / seconds, "files/s") + ", " +
         s_bytes(static_cast<double>(totals.bytes) / seconds) + "/s\n";
}

int exit_status(const scan_totals& totals) {
  if (totals.found > 0)
    return 1;
  return totals.errors > 0 ? 2 : 0;
}

progress_bar::progress_bar(bool wanted, std::uint64_t total)
    : enabled_(wanted && total > 1 && ::isatty(STDERR_FILENO) == 1),
      total_(total),
      started_(std::chrono::steady_clock::now()) {}

void progress_bar::show(const scan_totals& totals) {
  using namespace std::chrono_literals;
  const auto now = std::chrono::steady_clock::now();
  // A short run needs none, and nobody reads more than a few a second.
  if (!enabled_ || now - started_ < 500ms || now - last_ < 100ms)
    return;
  last_ = now;
  visible_ = true;
  constexpr std::size_t kWidth = 30;
  const std::uint64_t done = totals.files + totals.errors;
  const std::size_t filled = static_cast<std::size_t>(std::min(done, total_) * kWidth / total_);
  std::fprintf(stderr, "\r[%s%s] %llu of %llu, %llu found\033[K", std::string(filled, '#').c_str(),
               std::string(kWidth - filled, '.').c_str(), static_cast<unsigned long long>(done),
               static_cast<unsigned long long>(total_),
               static_cast<unsigned long long>(totals.found));
  std::fflush(stderr);
}

void progress_bar::clear() {
  if (visible_)
    std::fputs("\r\033[K", stderr);
  visible_ = false;
}

}  // namespace kv_scan
