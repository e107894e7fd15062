#pragma once
// The steps of the check for formula injection, each on its own. Private to the detector and its
// tests. Pure, apart from trace lines; any thread.

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string_view>

#include "activecontent/kv_simd_level.h"
#include "activecontent/kvactivecontent_csv.h"

// Delimiters that a table may have, in order of preference.
inline constexpr std::string_view KV_CSV_DELIMITERS = ",;|\t";

// What a cell is matched against once its first byte makes it a formula.
inline constexpr const char* KV_CSV_INJECTION_PATTERN = "^[@\\+\\=\\-].*[^0-9\\,\\.]+";
// The longest text that is given to the pattern. Its answer rests on a cell's first byte and on one
// byte behind it, so that what lies between may be left out of longer cells.
inline constexpr std::size_t KV_CSV_MAX_SUBJECT = 65536;

enum class kv_csv_match { yes, no, failed };

// The compiled pattern; tests put one in its place that fails.
class kv_csv_pattern {
 public:
  virtual ~kv_csv_pattern() = default;
  // 0, or the library's error code. Called once before match.
  [[nodiscard]] virtual int compile() = 0;
  [[nodiscard]] virtual kv_csv_match match(const char* cell) = 0;
};

// More than four lines of a bank statement: a record prefix at the beginning, "/" at the end. text
// ends at the object's first zero byte.
[[nodiscard]] bool kv_csv_is_bai(std::string_view text, kv_simd_level level);

// Shorter lines say nothing of a table.
inline constexpr std::size_t KV_CSV_SHORT_LINE = 2;

enum class kv_csv_quoting : std::uint8_t { none, in_double, in_single };

// Delimiters in text across its line feeds; counting may stop once there are more than limit.
[[nodiscard]] std::size_t kv_csv_count(std::string_view text, char delimiter, std::size_t limit);
inline constexpr std::size_t KV_CSV_NO_LIMIT = static_cast<std::size_t>(-1);

struct kv_csv_empty_line {
  std::size_t at;     // its line feed, or npos
  std::size_t count;  // delimiters in all the rest of the text
};

// The first empty line whose rest does not hold so many delimiters as wanted.
[[nodiscard]] kv_csv_empty_line kv_csv_first_bad_empty_line(std::string_view text, char delimiter,
                                                            std::size_t wanted);

// The delimiter of the first candidate that cuts every line into equally many cells, or 0.
[[nodiscard]] char kv_csv_choose_delimiter(std::string_view bytes, kv_simd_level level);

// Looks for the first cell with a formula. text ends at the object's first zero byte. 0, -202 with
// the reason, or -1000 with the error.
[[nodiscard]] std::int32_t kv_csv_find_injection(std::string_view text, char delimiter,
                                                 kv_csv_pattern& pattern, kv_simd_level level,
                                                 std::pmr::memory_resource& memory, char* reason,
                                                 char* error);

// The whole check.
[[nodiscard]] std::int32_t kv_csv_check(std::string_view bytes, kv_csv_pattern& pattern,
                                        kv_simd_level level, std::pmr::memory_resource& memory,
                                        char* reason, char* error);
