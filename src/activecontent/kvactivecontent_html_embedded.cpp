#define KV_LOG_UNIT "kvactivecontent_html_CheckTags"
#include <array>
#include <cstdlib>
#include <new>
#include <string>

#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_words.h"
#include "common/kv_guard.h"
#include "logging/log-helper.h"

namespace {

using markup_literals::kAll;

// What an occurrence gives: a value to hand on, nothing to scan, or something that could not be
// read and so must not be called clean.
enum class extracted : std::uint8_t { value, nothing, failed };
struct extraction {
  extracted outcome = extracted::nothing;
  std::string_view value{};
};
constexpr extraction kNothing{};
constexpr extraction kFailed{extracted::failed};

constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> s_digit_table(std::string_view digits) {
  std::array<std::uint8_t, 256> table{};
  table.fill(kNoDigit);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    table[static_cast<unsigned char>(digits[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr auto kBase64Digits =
    s_digit_table("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
constexpr auto kHexadecimalDigits = [] {
  auto table = s_digit_table("0123456789abcdef");
  for (char c = 'A'; c <= 'F'; ++c) {
    table[static_cast<unsigned char>(c)] = static_cast<std::uint8_t>(c - 'A' + 10);
  }
  return table;
}();

std::uint8_t s_digit(const std::array<std::uint8_t, 256>& table, char c) {
  return table[static_cast<unsigned char>(c)];
}

// Percent-decodes; output has room for the text. "+" and bad escapes stay (RFC 3986).
std::size_t s_url_decode(std::string_view text, char* output) {
  char* const begin = output;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%' && text.size() - i > 2) {
      const std::uint8_t high = s_digit(kHexadecimalDigits, text[i + 1]);
      const std::uint8_t low = s_digit(kHexadecimalDigits, text[i + 2]);
      if (high != kNoDigit && low != kNoDigit) {
        c = static_cast<char>(high << 4 | low);
        i += 2;
      }
    }
    *output++ = c;
  }
  return static_cast<std::size_t>(output - begin);
}

// White space that a base64 body may hold (https://infra.spec.whatwg.org/#forgiving-base64-decode).
constexpr bool s_is_ascii_space(char c) {
  return kv_is_html_space(c) && c != '/';
}

// The number of "=" that complete a group of four, or npos when no number does.
constexpr std::size_t s_padding(std::size_t digits) {
  constexpr std::array<std::size_t, 4> kPadding{0, std::string_view::npos, 2, 1};
  return kPadding[digits % 4];
}

// Decodes base64 (RFC 4648); padding may be absent, partial or complete. Output has room for three
// bytes of every four characters begun. npos for any other character or length.
std::size_t s_base64_decode(std::string_view text, char* output) {
  char* const begin = output;
  std::uint32_t bits = 0;
  std::size_t digits = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    const std::uint8_t digit = s_digit(kBase64Digits, c);
    if (digit == kNoDigit) {
      if (!s_is_ascii_space(c) && c != '=') {
        return std::string_view::npos;
      }
      padding += c == '=' ? 1 : 0;
      continue;
    }
    if (padding != 0) {
      return std::string_view::npos;
    }
    bits = bits << 6 | digit;
    if (++digits % 4 != 1) {
      *output++ = static_cast<char>(bits >> (6 - 2 * ((digits - 1) % 4)));
    }
  }
  const std::size_t complete = s_padding(digits);
  if (complete == std::string_view::npos || padding > complete) {
    return std::string_view::npos;
  }
  return static_cast<std::size_t>(output - begin);
}

std::size_t s_skip_space(std::string_view text, std::size_t position) {
  while (position < text.size() && kv_is_html_space(text[position])) {
    ++position;
  }
  return position;
}

std::size_t s_skip_space_back(std::string_view text, std::size_t position) {
  while (position > 0 && kv_is_html_space(text[position - 1])) {
    --position;
  }
  return position;
}

// Behind the "=" that makes the word at the position an attribute, or npos.
std::size_t s_behind_equals(std::string_view tag, std::size_t position, std::size_t length) {
  if (position == 0 || !(kv_is_html_space(tag[position - 1]) || kv_is_quote(tag[position - 1]))) {
    return std::string_view::npos;
  }
  const std::size_t behind = s_skip_space(tag, position + length);
  return behind < tag.size() && tag[behind] == '=' ? behind + 1 : std::string_view::npos;
}

extraction s_extract_srcdoc(std::string_view tag, std::size_t position) {
  std::size_t at = s_behind_equals(tag, position, kAll[markup_literals::kSrcdoc].length);
  if (at == std::string_view::npos) {
    KV_LOG_DEBUG("srcdoc element in invalid position");
    return kNothing;
  }
  at = s_skip_space(tag, at);
  if (at == tag.size()) {
    KV_LOG_DEBUG("zero-length srcdoc");
    return kNothing;
  }
  const std::string_view rest = tag.substr(at);
  KV_LOG_DEBUG("Getting quoted content in %.*s", kv_print_length(rest), rest.data());
  const char quote = rest[0];
  const std::size_t close = kv_is_quote(quote) ? rest.find(quote, 1) : std::string_view::npos;
  if (close == std::string_view::npos) {
    KV_LOG_ERROR("no matching quote to %c found", quote);
    return kFailed;
  }
  const std::string_view value = rest.substr(1, close - 1);
  if (value.empty()) {
    KV_LOG_DEBUG("zero-length srcdoc");
    return kNothing;
  }
  KV_LOG_DEBUG("Quoted data is %d bytes long", kv_print_length(value));
  KV_LOG_DEBUG("Quoted data: %.*s", kv_print_length(value), value.data());
  return {extracted::value, value};
}

// The quote before "data:" when it begins a quoted attribute value, or 0.
char s_opening_quote(std::string_view tag, std::size_t position) {
  while (position > 0 &&
         (tag[position - 1] == ' ' || tag[position - 1] == '\t' || tag[position - 1] == '\f')) {
    --position;
  }
  if (position == 0 || !kv_is_quote(tag[position - 1])) {
    return 0;
  }
  const std::size_t before = s_skip_space_back(tag, position - 1);
  return before > 0 && tag[before - 1] == '=' ? tag[position - 1] : '\0';
}

// Memory for decoded bytes, from the scan's allocator.
using bytes_ptr = kv_malloc_ptr<char>;
bytes_ptr s_allocate(const kv_markup_scan& scan, std::size_t size) {
  return bytes_ptr{static_cast<char*>(scan.environment.allocate(size))};
}

// A data URL's content; what had to be decoded lives in storage.
extraction s_decode_base64_body(const kv_markup_scan& scan, std::string_view body,
                                bytes_ptr& storage) {
  bytes_ptr data_raw;
  if (body.find('%') != std::string_view::npos) {
    data_raw = s_allocate(scan, body.size());
    if (!data_raw) {
      KV_LOG_ERROR("Memory allocation failed (data_raw)");
      return kFailed;
    }
    body = {data_raw.get(), s_url_decode(body, data_raw.get())};
  }
  const std::size_t room = body.size() / 4 * 3 + 3;
  storage = s_allocate(scan, room);
  if (!storage) {
    KV_LOG_ERROR("failed to allocate %d bytes for plain",
                 static_cast<int>(std::min<std::size_t>(room, INT32_MAX)));
    return kFailed;
  }
  const std::size_t length = s_base64_decode(body, storage.get());
  if (length == std::string_view::npos) {
    return kFailed;
  }
  return {extracted::value, {storage.get(), length}};
}

extraction s_decode_url_body(const kv_markup_scan& scan, std::string_view body,
                             bytes_ptr& storage) {
  if (body.find('%') == std::string_view::npos) {
    return {extracted::value, body};
  }
  storage = s_allocate(scan, body.size());
  if (!storage) {
    KV_LOG_ERROR("memory allocation (urldecoded) failed.");
    return kFailed;
  }
  return {extracted::value, {storage.get(), s_url_decode(body, storage.get())}};
}

// RFC 2397: "data:", media type and parameters, ",", data.
extraction s_extract_data_url(const kv_markup_scan& scan, std::string_view tag,
                              std::size_t position, bytes_ptr& storage) {
  const char quote = s_opening_quote(tag, position);
  if (quote == '\0') {
    KV_LOG_DEBUG("data tag invalid position");
    return kNothing;
  }
  const std::string_view rest = tag.substr(position + kAll[markup_literals::kData].length);
  const std::size_t close = rest.find(quote);
  if (close == std::string_view::npos) {
    KV_LOG_ERROR("Could not find end of the data segment");
    return kFailed;
  }
  const std::string_view value = rest.substr(0, close);
  const std::size_t comma = value.find(',');
  if (comma == std::string_view::npos || comma + 1 == value.size()) {
    KV_LOG_DEBUG("begin of data-part not found");
    return kNothing;
  }
  const std::string_view body = value.substr(comma + 1);
  if (kv_find_folded(value.substr(0, comma), "base64") == std::string_view::npos) {
    return s_decode_url_body(scan, body, storage);
  }
  KV_LOG_DEBUG("data URL is base64-encoded");
  return s_decode_base64_body(scan, body, storage);
}

// The next child's name; the counter advances with it.
std::string s_child_name(scanobject& job, const char* kind) {
  ++job.child_count;
  std::string name = job.object_name != nullptr ? job.object_name : "";
  name += '/';
  name += kind;
  name += '-';
  name += std::to_string(job.child_count);
  return name;
}

std::int32_t s_hand_on(kv_markup_scan& scan, kv_scan_result_t* consolidated,
                       std::string_view content, const char* kind) {
  const std::string name = s_child_name(*scan.job, kind);
  const kv_embedded_scan_t& embedded = scan.job->embedded;
  if (embedded.scan == nullptr) {
    return KV_RESULT_CLEAN;
  }
  return embedded.scan(embedded.context, scan.job, consolidated, content.data(), content.size(),
                       name.c_str(), scan.flag, scan.time_left_ms(), scan.reason, scan.error);
}

// A srcdoc's results are collected by themselves and merged when its scan is over, whatever it
// found.
std::int32_t s_scan_srcdoc(kv_markup_scan& scan, std::string_view content) {
  const kv_scan_result_ptr fresh{scan.environment.new_result()};
  if (!fresh) {
    return kv_markup_fail(scan.error, "Failed to allocate result struct for recursive scan");
  }
  const std::int32_t code = s_hand_on(scan, fresh.get(), content, "srcdoc");
  KV_LOG_DEBUG("Recursive Scan (srcdoc) returns %d", code);
  const kv_embedded_scan_t& embedded = scan.job->embedded;
  if (embedded.merge != nullptr &&
      embedded.merge(embedded.context, scan.consolidated, fresh.get()) != 0) {
    return kv_markup_fail(scan.error, "Failed to merge scan results of srcdoc");
  }
  return code;
}

std::int32_t s_scan_data_url(kv_markup_scan& scan, std::string_view content) {
  const std::int32_t code = s_hand_on(scan, scan.consolidated, content, "data-url");
  KV_LOG_DEBUG("Recursive Scan (data URL) returns %d", code);
  return code;
}

using scan_child_fn = std::int32_t (*)(kv_markup_scan& scan, std::string_view content);

kv_tag_verdict s_handle(kv_markup_scan& scan, const extraction& found, scan_child_fn scan_child,
                        const char* failure) {
  if (found.outcome == extracted::failed) {
    return {kv_markup_fail(scan.error, failure)};
  }
  if (found.outcome == extracted::nothing || found.value.empty()) {
    return {};
  }
  // A tag may hold any number of children, each of which may take its time.
  if (scan.time_left_ms() <= 0) {
    return {kv_markup_fail(scan.error, "Service side timeout")};
  }
  const std::int32_t code = scan_child(scan, found.value);
  return {code, code != KV_RESULT_CLEAN};
}

}  // namespace

kv_tag_verdict kv_scan_srcdocs(kv_markup_scan& scan, const kv_tag_view& tag) {
  bool seen = false;
  for (const kv_literal_hit& hit : tag.hits) {
    if (hit.number() != markup_literals::kSrcdoc) {
      continue;
    }
    seen = true;
    const kv_tag_verdict verdict = s_handle(scan, s_extract_srcdoc(tag.text, tag.offset(hit)),
                                            s_scan_srcdoc, "Failed to extract HTML5 srcdoc");
    if (verdict.code != KV_RESULT_CLEAN) {
      return verdict;
    }
  }
  if (!seen) {
    KV_LOG_DEBUG("No srcdoc element");
  }
  return {};
}

kv_tag_verdict kv_scan_data_urls(kv_markup_scan& scan, const kv_tag_view& tag) {
  KV_LOG_DEBUG("Checking for data URL");
  bool seen = false;
  for (const kv_literal_hit& hit : tag.hits) {
    if (hit.number() != markup_literals::kData) {
      continue;
    }
    seen = true;
    bytes_ptr storage;
    const kv_tag_verdict verdict =
        s_handle(scan, s_extract_data_url(scan, tag.text, tag.offset(hit), storage),
                 s_scan_data_url, "Failed to extract data URL");
    if (verdict.code != KV_RESULT_CLEAN) {
      return verdict;
    }
  }
  if (!seen) {
    KV_LOG_DEBUG("No data-URL found");
  }
  return {};
}
