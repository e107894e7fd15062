#pragma once
// What the units of the markup scan share: the record of one scan, the view of one tag, and the
// seams at which tests stand in for the library calls that can fail. A scan belongs to one thread.

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "activecontent/kvactivecontent_markup.h"
#include "activecontent/markup_kernels.h"
#include "activecontent/markup_literals.h"

// What a scan calls that is not its own. The default is constant after first use.
struct kv_markup_environment {
  const kv_markup_pattern* pattern;  // compiled once per process; null when that failed
  kv_match_outcome (*match)(const kv_markup_pattern* pattern, const char* text, std::size_t length);
  std::int64_t (*now_ms)();  // monotonic
  void* (*allocate)(std::size_t size);
  kv_scan_result_t* (*new_result)();
  kv_simd_level level;
};
[[nodiscard]] const kv_markup_environment& kv_markup_default_environment();

// A banned word, and its number among the literals (kNone for a word of a foreign list).
struct kv_banned_word {
  std::string_view text;
  markup_literals::id number;
};

class kv_hit_store;

struct kv_markup_scan {
  const kv_markup_environment& environment;
  scanobject* job;
  kv_scan_result_t* consolidated;
  char* reason;
  char* error;
  std::uint8_t flag;
  std::int64_t deadline_ms;  // by environment.now_ms, or KV_NO_TIME_LIMIT
  std::vector<kv_banned_word> words;
  std::uint8_t flags = 0;  // kv_markup_flag

  [[nodiscard]] std::int64_t time_left_ms() const;
  [[nodiscard]] bool wants_handlers() const;
};

// One tag as collected, with its "<" and without its ">", and the literals that matter in it.
struct kv_tag_view {
  std::string_view text;
  std::span<const kv_literal_hit> hits;
  std::size_t origin = 0;  // the tag's position in the text that the hits were found in

  [[nodiscard]] std::size_t offset(const kv_literal_hit& hit) const {
    return hit.position() - origin;
  }
};

struct kv_tag_verdict {
  std::int32_t code = KV_RESULT_CLEAN;
  bool from_child = false;  // the answer of an embedded object's scan
};

[[nodiscard]] kv_markup_scan kv_make_markup_scan(const kv_markup_environment& environment,
                                                 scanobject* job, kv_scan_result_t* consolidated,
                                                 const char* const* banned_tags, char* reason,
                                                 char* error, std::uint8_t flag,
                                                 std::int64_t time_left_ms);

// kvactivecontent_html over a given environment.
[[nodiscard]] std::int32_t kv_scan_markup(const kv_markup_environment& environment, scanobject* job,
                                          kv_scan_result_t* consolidated, char* reason, char* error,
                                          std::uint8_t flag, std::int64_t time_left_ms);
[[nodiscard]] std::int32_t kv_check_tags(kv_markup_scan& scan, std::string_view text,
                                         kv_hit_store& hits);
[[nodiscard]] kv_tag_verdict kv_analyse_tag(kv_markup_scan& scan, const kv_tag_view& tag);
// The children of the tag, in order: srcdoc values, then data URLs.
[[nodiscard]] kv_tag_verdict kv_scan_srcdocs(kv_markup_scan& scan, const kv_tag_view& tag);
[[nodiscard]] kv_tag_verdict kv_scan_data_urls(kv_markup_scan& scan, const kv_tag_view& tag);

// Every literal in the text.
[[nodiscard]] std::vector<kv_literal_hit> kv_all_hits(std::string_view text, kv_simd_level level);
// The first name in table order whose first occurrence in the tag is isolated, or kNone.
[[nodiscard]] markup_literals::id kv_find_event_handler(const kv_tag_view& tag);
std::int32_t kv_report_event_handler(const kv_tag_view& tag, char* reason);

// Writes the text to the error buffer and the log; KV_RESULT_FAILED.
std::int32_t kv_markup_fail(char* error, const char* text);
// Writes the reason, cut to its buffer, and logs it; KV_RESULT_ACTIVE_CONTENT.
std::int32_t kv_markup_detected(char* reason, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// For "%.*s".
[[nodiscard]] constexpr int kv_print_length(std::string_view text) {
  return static_cast<int>(std::min<std::size_t>(text.size(), INT32_MAX));
}
