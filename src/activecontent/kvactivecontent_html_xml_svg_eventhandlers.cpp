#include "activecontent/kvactivecontent_html_xml_svg_eventhandlers.h"

#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_matcher.h"
#include "activecontent/markup_words.h"
#include "logging/log-helper.h"

using markup_literals::is_handler;
using markup_literals::kAll;
using markup_literals::kNone;
using markup_literals::kPrefix;

markup_literals::id kv_find_event_handler(const kv_tag_view& tag) {
  kv_literal_presence seen;
  markup_literals::id best = kNone;
  for (const kv_literal_hit& hit : tag.hits) {
    for (markup_literals::id number = hit.number(); number != kNone; number = kPrefix[number]) {
      // Only the first occurrence of each name counts.
      if (is_handler(number) && seen.add_first(number) && number < best &&
          kv_is_isolated(tag.text, tag.offset(hit), kAll[number].length)) {
        best = number;
      }
    }
  }
  return best;
}

std::int32_t kv_report_event_handler(const kv_tag_view& tag, char* reason) {
  const markup_literals::id found = kv_find_event_handler(tag);
  if (found == kNone) {
    return KV_RESULT_CLEAN;
  }
  const std::string_view name = HTMLEventHandlers[kAll[found].table_index];
  const std::int32_t code =
      kv_markup_detected(reason, "\"Inline event handler '%s'\" detected in markup", name.data());
  KV_LOG_WARN("Found HTML Event handler %s in tag <%.*s>", name.data(), kv_print_length(tag.text),
              tag.text.data());
  return code;
}

int kvactivecontent_includesEventHandlers(const char* text, std::size_t length) {
  int rc = 0;
  KV_TRACE_SCOPE(rc);
  kv_literal_matcher matcher({text, length}, kv_best_simd_level());
  for (kv_literal_hit hit; rc == 0 && matcher.next(hit);) {
    rc = is_handler(hit.number()) ? 1 : 0;
  }
  return rc;
}

std::int32_t kvactivecontent_IsHTMLEventHandler(const char* tag, char* reason) {
  std::int32_t rc = KV_RESULT_CLEAN;
  KV_TRACE_SCOPE(rc);
  const std::vector<kv_literal_hit> hits = kv_all_hits(tag, kv_best_simd_level());
  rc = kv_report_event_handler({tag, hits}, reason);
  return rc;
}

bool kv_IsHTMLWhiteSpace(char character) {
  return kv_is_html_space(character);
}

bool kv_isIsolated(const char* text, std::size_t position, std::size_t length) {
  return kv_is_isolated(text, position, length);
}
