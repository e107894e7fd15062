#include <array>
#include <optional>
#include <string>

#include "activecontent/kvactivecontent_getNextTag.h"
#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_hits.h"
#include "activecontent/markup_matcher.h"
#include "activecontent/markup_words.h"
#include "common/kv_guard.h"
#include "logging/log-helper.h"

using markup_literals::kJavascript;
using markup_literals::kNone;

namespace {

// Words that cover a finding of the tag's own tests in the tag that holds them.
constexpr std::array<std::string_view, 1> kExceptions{"fontscript"};

// How much text is stepped over between two looks at the clock.
constexpr std::size_t kClockInterval = 65536;

// The word's number among the literals, if it is one that tags are searched for.
markup_literals::id s_number_of(std::string_view word) {
  for (std::size_t i = 0; i < kBannedTags.size(); ++i) {
    if (kv_equal_folded(kBannedTags[i], word)) {
      return static_cast<markup_literals::id>(markup_literals::kFirstBanned + i);
    }
  }
  return kNone;
}

bool s_all_words_known(const kv_markup_scan& scan) {
  return std::ranges::find(scan.words, kNone, &kv_banned_word::number) == scan.words.end();
}

// True when the word stands in the tag once all white space is taken out of it. Linear for words
// whose first letter does not return in them: no attempt begins inside another.
bool s_holds_without_space(std::string_view tag, std::string_view word) {
  for (std::size_t start = 0; start < tag.size(); ++start) {
    std::size_t matched = 0;
    for (std::size_t i = start; i < tag.size() && matched < word.size(); ++i) {
      if (kv_fold(tag[i]) == word[matched]) {
        ++matched;
      } else if (matched == 0 || !kv_is_html_space(tag[i])) {
        break;
      }
    }
    if (matched == word.size()) {
      return true;
    }
  }
  return false;
}
static_assert(kExceptions[0].find(kExceptions[0][0], 1) == std::string_view::npos);

// True when the finding is covered by an exception, which then stands in the error buffer.
bool s_is_excepted(kv_markup_scan& scan, std::string_view tag) {
  for (const std::string_view word : kExceptions) {
    if (s_holds_without_space(tag, word)) {
      const std::string text =
          "Found \"" + std::string(word) + "\" in a setting covered by an exception";
      static_cast<void>(kv_markup_fail(scan.error, text.c_str()));
      scan.reason[0] = '\0';
      return true;
    }
  }
  return false;
}

std::size_t s_first_banned(const kv_markup_scan& scan, std::string_view text,
                           const kv_literal_presence& present) {
  std::size_t order = 0;
  for (; order < scan.words.size(); ++order) {
    const kv_banned_word& word = scan.words[order];
    if (word.number != kNone ? present.has(word.number)
                             : kv_find_folded(text, word.text) != std::string_view::npos) {
      break;
    }
  }
  return order;
}

void s_log_flags(std::uint8_t flags) {
  const auto digit = [flags](unsigned bit) { return (flags >> bit & 1) != 0 ? '1' : '0'; };
  KV_LOG_DEBUG("Flags: 0x%c%c%c%c%c%c%c%c", digit(7), digit(6), digit(5), digit(4), digit(3),
               digit(2), digit(1), digit(0));
}

// What the document as a whole contains, of what this scan looks for.
void s_quick_checks(kv_markup_scan& scan, std::string_view text,
                    const kv_literal_presence& present) {
  const scanobject& job = *scan.job;
  const bool html = kv_scan_switch_is_on(job, KV_AC_HTML_SCRIPT);
  unsigned flags = 0;
  if ((html || kv_scan_switch_is_on(job, KV_AC_XML_JAVASCRIPT)) && present.has(kJavascript)) {
    flags |= KV_MARKUP_JAVASCRIPT;
  }
  if (html && present.has(markup_literals::kSrcdoc)) {
    flags |= KV_MARKUP_SRCDOC;
  }
  if (html && present.has(markup_literals::kData)) {
    flags |= KV_MARKUP_DATA_URL;
  }
  if (html && present.has_handler()) {
    flags |= KV_MARKUP_EVENT_HANDLER;
  }
  const std::size_t banned = s_first_banned(scan, text, present);
  if (banned < scan.words.size()) {
    flags |= KV_MARKUP_BANNED_TAG;
    const std::string_view word = scan.words[banned].text;
    KV_LOG_DEBUG("Quick check found banned tag \"%.*s\" - including them in the scan",
                 kv_print_length(word), word.data());
  } else {
    KV_LOG_DEBUG("No banned tags found");
  }
  scan.flags = static_cast<std::uint8_t>(flags);
  s_log_flags(scan.flags);
}

// The tags of a text, each with the literals in it; those that cannot be found guilty are stepped
// over.
class tag_source {
 public:
  tag_source(const kv_markup_scan& scan, std::string_view text, kv_hit_store& hits)
      : scan_(scan),
        text_(text),
        hits_(hits),
        walker_(text, scan.environment.level),
        every_tag_(log_is_enabled(KV_LOG_LEVEL_DEBUG) || !s_all_words_known(scan)) {}

  enum class outcome : std::uint8_t { tag, harmless, end, failed };
  // The next tag that needs its tests; harmless when none came before the position.
  [[nodiscard]] outcome next(kv_tag_view& tag, std::size_t position);
  [[nodiscard]] std::size_t position() const { return walker_.position(); }

 private:
  [[nodiscard]] outcome view(const kv_tag_extent& extent, kv_tag_view& tag);
  [[nodiscard]] outcome collect(const kv_tag_extent& extent, kv_tag_view& tag);

  const kv_markup_scan& scan_;
  std::string_view text_;
  kv_hit_store& hits_;
  kv_tag_walker walker_;
  bool every_tag_;  // for the log, or because a word is unknown to the matcher
  kv_text_ptr collected_;
  std::size_t collected_size_ = 0;
  std::vector<kv_literal_hit> collected_hits_;
};

// A tag without the bytes that do not count as there.
tag_source::outcome tag_source::collect(const kv_tag_extent& extent, kv_tag_view& tag) {
  const std::size_t size = extent.end - extent.begin;
  if (size > collected_size_) {
    collected_size_ = std::max(size, 2 * collected_size_);
    collected_.reset(static_cast<char*>(scan_.environment.allocate(collected_size_)));
    if (!collected_) {
      KV_LOG_ERROR("Reallocation of *tag failed");
      return outcome::failed;
    }
  }
  tag.text = {collected_.get(), kv_copy_tag(text_.substr(extent.begin, size), collected_.get())};
  tag.origin = 0;
  kv_collect_hits(tag.text, scan_.environment.level, hits_.filter(), collected_hits_);
  tag.hits = collected_hits_;
  return tag.hits.empty() ? outcome::harmless : outcome::tag;
}

tag_source::outcome tag_source::view(const kv_tag_extent& extent, kv_tag_view& tag) {
  tag.text = text_.substr(extent.begin, extent.end - extent.begin);
  tag.origin = extent.begin;
  tag.hits = hits_.between(extent.begin, extent.end);
  outcome found = tag.hits.empty() ? outcome::harmless : outcome::tag;
  if (extent.may_join || (extent.has_dropped && (every_tag_ || found == outcome::tag))) {
    found = collect(extent, tag);
  }
  if (!every_tag_ || found == outcome::failed) {
    return found;
  }
  kv_log_found_tag(tag.text);
  return outcome::tag;
}

tag_source::outcome tag_source::next(kv_tag_view& tag, std::size_t position) {
  kv_tag_extent extent;
  while (walker_.next(extent)) {
    outcome found = outcome::harmless;
    if (every_tag_ || extent.may_join || !hits_.none_before(extent.end)) {
      found = view(extent, tag);
    }
    if (found != outcome::harmless || walker_.position() >= position) {
      return found;
    }
  }
  return outcome::end;
}

// The tag's answer; a finding that an exception covers is none.
std::int32_t s_judge(kv_markup_scan& scan, const kv_tag_view& tag) {
  const kv_tag_verdict verdict = kv_analyse_tag(scan, tag);
  if (verdict.code != KV_RESULT_ACTIVE_CONTENT) {
    return verdict.code;
  }
  if (!verdict.from_child && s_is_excepted(scan, tag.text)) {
    return KV_RESULT_CLEAN;
  }
  KV_LOG_WARN("Found tag %.*s", kv_print_length(tag.text), tag.text.data());
  return verdict.code;
}

std::int32_t s_walk(kv_markup_scan& scan, std::string_view text, kv_hit_store& hits) {
  tag_source tags(scan, text, hits);
  kv_tag_view tag;
  // The clock is read behind each tag that was tested, since its tests may have taken any time, and
  // otherwise now and then: stepping over a tag takes next to none.
  while (tags.position() < text.size()) {
    if (scan.time_left_ms() <= 0) {
      return kv_markup_fail(scan.error, "Service side timeout");
    }
    switch (tags.next(tag, tags.position() + kClockInterval)) {
      case tag_source::outcome::end:
        return KV_RESULT_CLEAN;
      case tag_source::outcome::failed:
        return kv_markup_fail(scan.error, "Error getting next HTML tag");
      case tag_source::outcome::harmless:
        break;
      case tag_source::outcome::tag:
        if (const std::int32_t code = s_judge(scan, tag); code != KV_RESULT_CLEAN) {
          return code;
        }
    }
  }
  return KV_RESULT_CLEAN;
}

std::int32_t s_check_tags(kv_markup_scan& scan, std::string_view text, kv_hit_store& hits) {
  if (scan.environment.pattern == nullptr) {
    return kv_markup_fail(scan.error, "Error compiling regex");
  }
  s_quick_checks(scan, text, hits.present());
  if (scan.flags == 0) {
    return KV_RESULT_CLEAN;
  }
  return s_walk(scan, text, hits);
}

}  // namespace

std::int64_t kv_markup_scan::time_left_ms() const {
  return deadline_ms == KV_NO_TIME_LIMIT ? KV_NO_TIME_LIMIT : deadline_ms - environment.now_ms();
}

bool kv_markup_scan::wants_handlers() const {
  return kv_scan_switch_is_on(*job, KV_AC_HTML_EVENTHANDLER);
}

kv_markup_scan kv_make_markup_scan(const kv_markup_environment& environment, scanobject* job,
                                   kv_scan_result_t* consolidated, const char* const* banned_tags,
                                   char* reason, char* error, std::uint8_t flag,
                                   std::int64_t time_left_ms) {
  const std::int64_t now = time_left_ms == KV_NO_TIME_LIMIT ? 0 : environment.now_ms();
  const std::int64_t deadline =
      time_left_ms > KV_NO_TIME_LIMIT - now ? KV_NO_TIME_LIMIT : now + time_left_ms;
  kv_markup_scan scan{environment, job, consolidated, reason, error, flag, deadline, {}};
  for (; **banned_tags != '\0'; ++banned_tags) {
    scan.words.push_back({*banned_tags, s_number_of(*banned_tags)});
  }
  return scan;
}

std::int32_t kv_check_tags(kv_markup_scan& scan, std::string_view text, kv_hit_store& hits) {
  std::int32_t rc = KV_RESULT_CLEAN;
  const kv_trace_scope trace("kvactivecontent_html_CheckTags", KV_LOG_UNIT, __LINE__, rc);
  rc = s_check_tags(scan, text, hits);
  return rc;
}

std::int32_t kvactivecontent_html_CheckTags(scanobject* job, const char* text, std::size_t length,
                                            kv_scan_result_t* consolidated,
                                            const char* const* banned_tags, char* reason,
                                            char* error, std::uint8_t flag,
                                            std::int64_t time_left_ms) {
  kv_markup_scan scan = kv_make_markup_scan(kv_markup_default_environment(), job, consolidated,
                                            banned_tags, reason, error, flag, time_left_ms);
  kv_hit_store hits({text, length}, scan.environment.level, kv_hit_filter::of(scan));
  return kv_check_tags(scan, {text, length}, hits);
}
