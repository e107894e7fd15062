#include "activecontent/kvactivecontent_html_decode_entities.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "activecontent/kvactivecontent_html_named_entities.h"
#include "activecontent/kvactivecontent_markup.h"
#include "logging/log-helper.h"

namespace {

constexpr std::uint32_t kCodePointEnd = 0x110000;
constexpr std::uint32_t kNoDigit = 16;
constexpr std::size_t kLongestName = std::ranges::max(NAMED_ENTITIES, {}, [](const auto& entity) {
                                       return entity.name.size();
                                     }).name.size();

// A reference's replacement, and how much of the text it replaces: 0 for no reference.
struct replacement {
  std::array<char, 4> own{};
  std::string_view text;  // null data: the bytes are in own
  std::size_t length = 0;
  std::size_t consumed = 0;
};

std::uint32_t s_digit(char c, bool hexadecimal) {
  if (c >= '0' && c <= '9') {
    return static_cast<std::uint32_t>(c - '0');
  }
  const char lower = static_cast<char>(c | 0x20);
  return hexadecimal && lower >= 'a' && lower <= 'f' ? static_cast<std::uint32_t>(lower - 'a' + 10)
                                                     : kNoDigit;
}

std::size_t s_encode_utf8(std::uint32_t value, std::array<char, 4>& out) {
  const auto tail = [value](unsigned shift) {
    return static_cast<char>(0x80 | (value >> shift & 0x3F));
  };
  if (value < 0x80) {
    out[0] = static_cast<char>(value);
    return 1;
  }
  if (value < 0x800) {
    out = {static_cast<char>(0xC0 | value >> 6), tail(0)};
    return 2;
  }
  if (value < 0x10000) {
    out = {static_cast<char>(0xE0 | value >> 12), tail(6), tail(0)};
    return 3;
  }
  out = {static_cast<char>(0xF0 | value >> 18), tail(12), tail(6), tail(0)};
  return 4;
}

// The text begins with "&#".
replacement s_decode_number(std::string_view text) {
  std::size_t at = 2;
  const bool hexadecimal = at < text.size() && (text[at] == 'x' || text[at] == 'X');
  at += hexadecimal ? 1 : 0;
  const std::size_t first_digit = at;
  const std::uint32_t base = hexadecimal ? 16 : 10;
  std::uint32_t value = 0;
  for (; at < text.size(); ++at) {
    const std::uint32_t digit = s_digit(text[at], hexadecimal);
    if (digit == kNoDigit) {
      break;
    }
    value = std::min(value * base + digit, kCodePointEnd);  // stays there, however long
  }
  replacement result;
  if (at == first_digit || at == text.size() || text[at] != ';' || value >= kCodePointEnd) {
    return result;
  }
  result.length = s_encode_utf8(value, result.own);
  result.consumed = at + 1;
  return result;
}

// The text begins with "&".
replacement s_decode_name(std::string_view text) {
  const std::string_view candidate = text.substr(1, kLongestName);
  const std::size_t end = candidate.find(';');
  replacement result;
  if (end == std::string_view::npos) {
    return result;
  }
  const std::string_view name = candidate.substr(0, end + 1);
  const auto* const row =
      std::ranges::lower_bound(NAMED_ENTITIES, name, {}, &kv_named_entity::name);
  if (row != NAMED_ENTITIES.end() && row->name == name) {
    result.text = row->text;
    result.length = row->text.size();
    result.consumed = name.size() + 1;
  }
  return result;
}

replacement s_decode(std::string_view text) {
  return text.size() > 1 && text[1] == '#' ? s_decode_number(text) : s_decode_name(text);
}

}  // namespace

std::size_t kv_find_reference(std::string_view text) {
  std::size_t at = text.find('&');
  while (at != std::string_view::npos && s_decode(text.substr(at)).consumed == 0) {
    at = text.find('&', at + 1);
  }
  return at;
}

std::size_t kv_decode_references(std::string_view text, char* output) {
  char* const begin = output;
  while (!text.empty()) {
    const replacement found = text[0] == '&' ? s_decode(text) : replacement{};
    if (found.consumed != 0) {
      std::memcpy(output, found.text.data() != nullptr ? found.text.data() : found.own.data(),
                  found.length);
      output += found.length;
      text.remove_prefix(found.consumed);
      continue;
    }
    // The run up to the next "&"; an "&" that stays begins it.
    const std::size_t run = std::min(text.find('&', 1), text.size());
    std::memmove(output, text.data(), run);
    output += run;
    text.remove_prefix(run);
  }
  return static_cast<std::size_t>(output - begin);
}

std::size_t kvactivecontent_decode_html_entities_utf8(char* text, char* output) {
  int rc = 0;
  KV_TRACE_SCOPE(rc);
  char* const target = output != nullptr ? output : text;
  const std::size_t length = kv_decode_references({text, std::strlen(text)}, target);
  target[length] = '\0';
  return length;
}
