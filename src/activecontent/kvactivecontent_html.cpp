#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>

#include "activecontent/kvactivecontent_html_decode_entities.h"
#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_hits.h"
#include "activecontent/markup_words.h"
#include "common/kv_guard.h"
#include "logging/log-helper.h"

namespace {

std::int64_t s_now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// The bytes that take part in the scan: those before the first NUL.
std::string_view s_text_of(const scanobject& job) {
  if (job.data == nullptr || job.object_length <= 0) {
    return {};
  }
  const std::string_view bytes{static_cast<const char*>(job.data),
                               static_cast<std::size_t>(job.object_length)};
  return bytes.substr(0, bytes.find('\0'));
}

bool s_lacks_bytes(const scanobject& job) {
  return job.data == nullptr && job.object_length > 0;
}

// A text with its references decoded, copied only when there is one.
class decoded_text {
 public:
  // False when there is no memory for the copy.
  [[nodiscard]] bool decode(std::string_view text, const kv_markup_environment& environment) {
    text_ = text;
    const std::size_t first = kv_find_reference(text);
    if (first == std::string_view::npos) {
      return true;
    }
    copy_.reset(static_cast<char*>(environment.allocate(text.size())));
    if (!copy_) {
      return false;
    }
    text.copy(copy_.get(), first);
    text_ = {copy_.get(), first + kv_decode_references(text.substr(first), copy_.get() + first)};
    return true;
  }
  [[nodiscard]] std::string_view text() const { return text_; }

 private:
  kv_text_ptr copy_;
  std::string_view text_;
};

// The list of banned words for this object, ended by an empty one; empty when no tag is tested.
// In XML the two switches of XML ask for less than "HTML_SCRIPT", and for nothing more.
std::vector<const char*> s_banned_tags(const scanobject& job) {
  std::vector<const char*> words;
  const bool is_xml =
      job.mime_type != nullptr && kv_find_folded(job.mime_type, "xml") != std::string_view::npos;
  if (kv_scan_switch_is_on(job, KV_AC_HTML_SCRIPT)) {
    for (const std::string_view word : kBannedTags) {
      words.push_back(word.data());
    }
  } else if (is_xml) {
    if (kv_scan_switch_is_on(job, KV_AC_XML_JAVASCRIPT)) {
      words.insert(words.end(), {"script", "javascript"});
    }
    if (kv_scan_switch_is_on(job, KV_AC_XML_XSLT)) {
      words.push_back("xsl");
    }
  }
  words.push_back("");
  return words;
}

std::int32_t s_scan_text(kv_markup_scan& scan, std::string_view text) {
  kv_hit_store hits(text, scan.environment.level, kv_hit_filter::of(scan));
  if (scan.wants_handlers() && hits.present().has(markup_literals::kRegistration)) {
    return kv_markup_detected(scan.reason, "\"Event handler registration\" detected in markup");
  }
  return scan.words.empty() ? KV_RESULT_CLEAN : kv_check_tags(scan, text, hits);
}

}  // namespace

const kv_markup_environment& kv_markup_default_environment() {
  static const kv_markup_environment environment{
      kv_invocation_pattern(),   kv_match_pattern,    s_now_ms, std::malloc,
      kv_worker_new_scan_result, kv_best_simd_level()};
  return environment;
}

std::int32_t kv_markup_fail(char* error, const char* text) {
  KV_LOG_ERROR("%s", text);
  static_cast<void>(std::snprintf(error, KV_REASON_SIZE, "%s", text));
  return KV_RESULT_FAILED;
}

std::int32_t kv_markup_detected(char* reason, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(std::vsnprintf(reason, KV_REASON_SIZE, format, arguments));
  va_end(arguments);
  KV_LOG_WARN("%s", reason);
  return KV_RESULT_ACTIVE_CONTENT;
}

std::int32_t kv_scan_markup(const kv_markup_environment& environment, scanobject* job,
                            kv_scan_result_t* consolidated, char* reason, char* error,
                            std::uint8_t flag, std::int64_t time_left_ms) {
  const std::vector<const char*> banned_tags = s_banned_tags(*job);
  kv_markup_scan scan = kv_make_markup_scan(environment, job, consolidated, banned_tags.data(),
                                            reason, error, flag, time_left_ms);
  if (scan.words.empty() && !scan.wants_handlers()) {
    return KV_RESULT_CLEAN;
  }
  if (s_lacks_bytes(*job)) {
    return kv_markup_fail(error, "Data length inconsistency");
  }
  decoded_text decoded;
  if (!decoded.decode(s_text_of(*job), environment)) {
    KV_LOG_ERROR("Failed to duplicate buffer");
    return KV_RESULT_BAD_INPUT;
  }
  return s_scan_text(scan, decoded.text());
}

std::int32_t kvactivecontent_html(scanobject* job, kv_scan_result_t* consolidated, char* reason,
                                  char* error, std::uint8_t flag, std::int64_t time_left_ms) {
  std::int32_t rc = KV_RESULT_CLEAN;
  KV_TRACE_SCOPE(rc);
  try {
    rc = kv_scan_markup(kv_markup_default_environment(), job, consolidated, reason, error, flag,
                        time_left_ms);
  } catch (const std::exception& failure) {
    // What was not examined to its end is never called clean.
    rc = kv_markup_fail(error, failure.what());
  }
  return rc;
}

std::size_t kv_activecontent_removeNullChars(char* text, std::size_t length) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < length; ++i) {
    if (text[i] == '\0') {
      KV_LOG_WARN("Found encoded zero char (IE obfuscation attack)");
    } else {
      text[kept++] = text[i];
    }
  }
  return kept;
}
