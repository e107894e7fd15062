#define KV_LOG_UNIT "kvactivecontent_html_CheckTags"
#include <array>

#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_words.h"
#include "common/kv_guard.h"
#include "logging/log-helper.h"

using markup_literals::kAll;
using markup_literals::kJavascript;
using markup_literals::kNone;

namespace {

constexpr std::string_view kInvocation = "javascript:";

// Copies the tag without the contents of its double-quoted strings; the quotes stay, what follows
// one that never closes does not. A quote behind a backslash is no quote.
std::size_t s_remove_quoted(std::string_view tag, char* output) {
  char* const begin = output;
  bool quoted = false;
  for (std::size_t i = 0; i < tag.size(); ++i) {
    const bool is_quote = tag[i] == '"' && (i == 0 || tag[i - 1] != '\\');
    quoted ^= is_quote;
    if (is_quote || !quoted) {
      *output++ = tag[i];
    }
  }
  return static_cast<std::size_t>(output - begin);
}

// Tells for ascending positions of a tag whether they lie inside a double-quoted string.
class quote_cursor {
 public:
  explicit quote_cursor(std::string_view tag) : tag_(tag) {}
  [[nodiscard]] bool is_quoted(std::size_t position) {
    for (; at_ < position; ++at_) {
      at_ = tag_.find('"', at_);
      if (at_ >= position) {
        at_ = position;
        break;
      }
      quoted_ ^= at_ == 0 || tag_[at_ - 1] != '\\';
    }
    return quoted_;
  }

 private:
  std::string_view tag_;
  std::size_t at_ = 0;
  bool quoted_ = false;
};

// What the pattern cannot match without: the word, with a double quote before and behind it.
bool s_may_match_pattern(const kv_tag_view& tag) {
  const std::size_t open = tag.text.find('"');
  const std::size_t close = tag.text.rfind('"');
  for (const kv_literal_hit& hit : tag.hits) {
    const std::size_t at = tag.offset(hit);
    if (hit.number() == kJavascript && open < at && close != std::string_view::npos &&
        at + kInvocation.size() <= close && tag.text.substr(at).starts_with(kInvocation)) {
      return true;
    }
  }
  return false;
}

std::int32_t s_check_invocation(kv_markup_scan& scan, const kv_tag_view& tag) {
  KV_LOG_DEBUG("Checking for javascript invocation tags");
  const kv_markup_environment& environment = scan.environment;
  const kv_match_outcome outcome =
      s_may_match_pattern(tag)
          ? environment.match(environment.pattern, tag.text.data(), tag.text.size())
          : kv_match_outcome::no_match;
  if (outcome == kv_match_outcome::no_match) {
    KV_LOG_DEBUG("no match");
    return KV_RESULT_CLEAN;
  }
  if (outcome == kv_match_outcome::failed) {
    return kv_markup_fail(scan.error, "Error matching regex");
  }
  return kv_markup_detected(scan.reason, "Active Content \"javascript\" found in markup");
}

std::int32_t s_check_event_handlers(kv_markup_scan& scan, const kv_tag_view& tag) {
  KV_LOG_DEBUG("Checking for HTML event handlers");
  const std::int32_t code = kv_report_event_handler(tag, scan.reason);
  if (code != KV_RESULT_CLEAN) {
    KV_LOG_DEBUG("Check for event-handlers in html returns %d", code);
  }
  return code;
}

// The tag without its "<" and without the contents of its quotes.
struct bare_tag {
  kv_text_ptr storage;
  std::string_view text;
};

bare_tag s_bare_tag(const kv_markup_scan& scan, std::string_view tag) {
  bare_tag result{kv_text_ptr{static_cast<char*>(scan.environment.allocate(tag.size() + 1))}, {}};
  if (result.storage) {
    const std::size_t length = s_remove_quoted(tag, result.storage.get());
    result.text = std::string_view{result.storage.get(), length}.substr(length == 0 ? 0 : 1);
  }
  return result;
}

std::size_t s_order_of(const kv_markup_scan& scan, markup_literals::id number) {
  std::size_t order = 0;
  while (order < scan.words.size() && scan.words[order].number != number) {
    ++order;
  }
  return order;
}

// The first word of the list with an isolated occurrence outside quotes, or the list's size. The
// bytes around such an occurrence are the same with and without the contents of the quotes.
std::size_t s_find_banned(const kv_markup_scan& scan, const kv_tag_view& tag) {
  quote_cursor quotes(tag.text);
  std::size_t best = scan.words.size();
  for (const kv_literal_hit& hit : tag.hits) {
    const std::size_t at = tag.offset(hit);
    if (!markup_literals::is_banned(hit.number()) || at == 0) {
      continue;
    }
    const std::string_view behind_opening = tag.text.substr(1);
    const std::size_t order = s_order_of(scan, hit.number());
    if (order < best && kv_is_isolated(behind_opening, at - 1, kAll[hit.number()].length) &&
        !quotes.is_quoted(at)) {
      best = order;
    }
  }
  return best;
}

// The same for a list with words that the matcher does not know.
std::size_t s_search_banned(const kv_markup_scan& scan, std::string_view bare) {
  for (std::size_t order = 0; order < scan.words.size(); ++order) {
    const std::string_view word = scan.words[order].text;
    for (std::size_t at = kv_find_folded(bare, word); at != std::string_view::npos;
         at = kv_find_folded(bare, word, at + 1)) {
      if (kv_is_isolated(bare, at, word.size())) {
        return order;
      }
    }
  }
  return scan.words.size();
}

std::int32_t s_check_banned(kv_markup_scan& scan, const kv_tag_view& tag) {
  const bool all_known = s_order_of(scan, kNone) == scan.words.size();
  std::size_t order = all_known ? s_find_banned(scan, tag) : 0;
  if (order == scan.words.size()) {
    return KV_RESULT_CLEAN;
  }
  const bare_tag bare = s_bare_tag(scan, tag.text);
  if (!bare.storage) {
    return kv_markup_fail(scan.error, "Failed to allocate _tag");
  }
  order = all_known ? order : s_search_banned(scan, bare.text);
  if (order == scan.words.size()) {
    return KV_RESULT_CLEAN;
  }
  const std::string_view word = scan.words[order].text;
  KV_LOG_WARN("found isolated keyword %.*s in <%.*s>", kv_print_length(word), word.data(),
              kv_print_length(bare.text), bare.text.data());
  return kv_markup_detected(scan.reason, "\"%.*s-tag\" detected in markup", kv_print_length(word),
                            word.data());
}

bool s_has(const kv_markup_scan& scan, kv_markup_flag flag) {
  return (scan.flags & flag) != 0;
}

}  // namespace

kv_tag_verdict kv_analyse_tag(kv_markup_scan& scan, const kv_tag_view& tag) {
  kv_tag_verdict verdict;
  const kv_trace_scope trace("analyseTag", KV_LOG_UNIT, __LINE__, verdict.code);
  if (s_has(scan, KV_MARKUP_JAVASCRIPT)) {
    verdict.code = s_check_invocation(scan, tag);
  }
  if (verdict.code == KV_RESULT_CLEAN && s_has(scan, KV_MARKUP_SRCDOC)) {
    verdict = kv_scan_srcdocs(scan, tag);
  }
  if (verdict.code == KV_RESULT_CLEAN && s_has(scan, KV_MARKUP_DATA_URL)) {
    verdict = kv_scan_data_urls(scan, tag);
  }
  if (verdict.code == KV_RESULT_CLEAN && s_has(scan, KV_MARKUP_EVENT_HANDLER) &&
      scan.wants_handlers()) {
    verdict.code = s_check_event_handlers(scan, tag);
  }
  if (verdict.code == KV_RESULT_CLEAN && s_has(scan, KV_MARKUP_BANNED_TAG)) {
    verdict.code = s_check_banned(scan, tag);
  }
  return verdict;
}

std::size_t kvactivecontent_removeQuotedText(const char* text, std::size_t length, char* output) {
  const std::size_t copied = s_remove_quoted({text, length}, output);
  output[copied] = '\0';
  return copied;
}

std::int32_t analyseTag(const char* tag, scanobject* job, kv_scan_result_t* consolidated,
                        const char* const* banned_tags, char* reason, char* error,
                        std::uint8_t flag, std::int64_t time_left_ms,
                        const kv_markup_pattern* pattern, std::uint8_t quick_check_flags) {
  kv_markup_environment environment = kv_markup_default_environment();
  environment.pattern = pattern;
  kv_markup_scan scan = kv_make_markup_scan(environment, job, consolidated, banned_tags, reason,
                                            error, flag, time_left_ms);
  scan.flags = quick_check_flags;
  const std::vector<kv_literal_hit> hits = kv_all_hits(tag, environment.level);
  return kv_analyse_tag(scan, {tag, hits}).code;
}
