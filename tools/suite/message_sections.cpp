#include "message_sections.h"

#include <array>

namespace kv_suite {
namespace {

// Constructors of the type system (part 1, section 1.6) that the two sections use.
constexpr std::uint8_t kDescribed = 0x00;
constexpr std::uint8_t kNull = 0x40;
constexpr std::uint8_t kTrue = 0x41;
constexpr std::uint8_t kFalse = 0x42;
constexpr std::uint8_t kUintZero = 0x43;
constexpr std::uint8_t kUlongZero = 0x44;
constexpr std::uint8_t kEmptyList = 0x45;
constexpr std::uint8_t kUbyte = 0x50;
constexpr std::uint8_t kSmallUint = 0x52;
constexpr std::uint8_t kSmallUlong = 0x53;
constexpr std::uint8_t kBoolean = 0x56;
constexpr std::uint8_t kUint = 0x70;
constexpr std::uint8_t kUlong = 0x80;
constexpr std::uint8_t kString8 = 0xa1;
constexpr std::uint8_t kString32 = 0xb1;
constexpr std::uint8_t kList8 = 0xc0;
constexpr std::uint8_t kList32 = 0xd0;

// Descriptors of the sections (3.2), in the order in which they may stand.
constexpr std::uint64_t kHeader = 0x70;
constexpr std::uint64_t kProperties = 0x73;
constexpr std::uint64_t kFooter = 0x78;

constexpr std::size_t kHeaderFields = 5;
constexpr std::size_t kPropertyTo = 2;
constexpr std::size_t kPropertyReplyTo = 4;

struct cursor {
  std::string_view rest;

  [[nodiscard]] bool take(std::size_t count, std::string_view& out) {
    if (count > rest.size())
      return false;
    out = rest.substr(0, count);
    rest.remove_prefix(count);
    return true;
  }
  [[nodiscard]] bool take_byte(std::uint8_t& out) {
    std::string_view byte;
    if (!take(1, byte))
      return false;
    out = static_cast<std::uint8_t>(byte[0]);
    return true;
  }
  // Unsigned number of 1, 4 or 8 bytes in network order.
  [[nodiscard]] bool take_number(std::size_t width, std::uint64_t& out) {
    std::string_view bytes;
    if (!take(width, bytes))
      return false;
    out = 0;
    for (const char byte : bytes)
      out = out << 8 | static_cast<std::uint8_t>(byte);
    return true;
  }
};

struct value {
  std::uint8_t constructor = kNull;
  std::string_view bytes;  // what follows the constructor, without a size field
};

// The upper half of a constructor tells how its value is framed (part 1, figure 1.3).
bool s_take_payload(cursor& from, std::uint8_t constructor, std::string_view& out) {
  static constexpr std::array<std::size_t, 6> kFixedWidths{0, 1, 2, 4, 8, 16};
  const std::size_t framing = constructor >> 4;
  if (framing >= 0x4 && framing <= 0x9)
    return from.take(kFixedWidths[framing - 4], out);
  if (framing < 0xa)
    return false;
  std::uint64_t size = 0;
  const std::size_t size_width = framing % 2 == 0 ? 1 : 4;
  return from.take_number(size_width, size) && from.take(static_cast<std::size_t>(size), out);
}

// A described value (an extension) is stepped over with its descriptor; one inside another is not
// allowed here, so that the depth is bounded.
bool s_take_value(cursor& from, value& out) {
  if (!from.take_byte(out.constructor))
    return false;
  if (out.constructor != kDescribed)
    return s_take_payload(from, out.constructor, out.bytes);
  std::uint8_t descriptor = 0;
  return from.take_byte(descriptor) && s_take_payload(from, descriptor, out.bytes) &&
         from.take_byte(out.constructor) && s_take_payload(from, out.constructor, out.bytes);
}

bool s_number(const value& in, std::uint64_t& out) {
  cursor bytes{in.bytes};
  switch (in.constructor) {
    case kUintZero:
    case kUlongZero:
      out = 0;
      return true;
    case kUbyte:
    case kSmallUint:
    case kSmallUlong:
    case kUint:
    case kUlong:
      return bytes.take_number(in.bytes.size(), out);
    default:
      return false;
  }
}

bool s_boolean(const value& in, bool& out) {
  if (in.constructor == kTrue || in.constructor == kFalse) {
    out = in.constructor == kTrue;
    return true;
  }
  if (in.constructor != kBoolean)
    return false;
  out = in.bytes[0] != 0;
  return true;
}

bool s_text(const value& in, std::string_view& out) {
  if (in.constructor == kNull)
    return true;
  if (in.constructor != kString8 && in.constructor != kString32)
    return false;
  out = in.bytes;
  return true;
}

// Leaves in `items` the bytes of a list's elements, behind their count.
bool s_open_list(const value& list, cursor& items, std::uint64_t& count) {
  items.rest = list.bytes;
  count = 0;
  if (list.constructor == kEmptyList)
    return true;
  if (list.constructor == kList8)
    return items.take_number(1, count);
  return list.constructor == kList32 && items.take_number(4, count);
}

bool s_header_field(std::size_t index, const value& field, message_header& header) {
  if (field.constructor == kNull)
    return true;
  std::uint64_t number = 0;
  bool flag = false;
  switch (index) {
    case 0:
      return s_boolean(field, header.durable);
    case 1:
      if (!s_number(field, number))
        return false;
      header.priority = static_cast<std::uint8_t>(number);
      return true;
    case 2:
      if (!s_number(field, number))
        return false;
      header.ttl_ms = static_cast<std::uint32_t>(number);
      return true;
    case 3:  // first-acquirer: each delivery tells its own
      return s_boolean(field, flag);
    default:
      if (!s_number(field, number))
        return false;
      header.delivery_count = static_cast<std::uint32_t>(number);
      return true;
  }
}

bool s_read_header(const value& section, message_header& header) {
  cursor items;
  std::uint64_t count = 0;
  if (!s_open_list(section, items, count) || count > kHeaderFields)
    return false;
  for (std::size_t index = 0; index < count; ++index) {
    value field;
    if (!s_take_value(items, field) || !s_header_field(index, field, header))
      return false;
  }
  return true;
}

bool s_read_properties(const value& section, message_sections& out) {
  cursor items;
  std::uint64_t count = 0;
  if (!s_open_list(section, items, count))
    return false;
  for (std::size_t index = 0; index < count && index <= kPropertyReplyTo; ++index) {
    value field;
    if (!s_take_value(items, field))
      return false;
    if (index == kPropertyTo && !s_text(field, out.to))
      return false;
    if (index == kPropertyReplyTo && !s_text(field, out.reply_to))
      return false;
  }
  return true;
}

bool s_take_section(cursor& from, std::uint64_t& descriptor, value& section) {
  std::uint8_t mark = 0;
  value code;
  return from.take_byte(mark) && mark == kDescribed && from.take_byte(code.constructor) &&
         s_take_payload(from, code.constructor, code.bytes) && s_number(code, descriptor) &&
         from.take_byte(section.constructor) &&
         s_take_payload(from, section.constructor, section.bytes);
}

void s_put_number(std::string& out, std::uint8_t constructor, std::uint32_t number) {
  out.push_back(static_cast<char>(constructor));
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<char>(number >> shift));
}

}  // namespace

bool read_message_sections(std::string_view encoded, message_sections& out) {
  out = {};
  cursor from{encoded};
  while (!from.rest.empty()) {
    std::uint64_t descriptor = 0;
    value section;
    if (!s_take_section(from, descriptor, section))
      return false;
    if (descriptor < kHeader || descriptor > kFooter)
      return false;
    if (descriptor == kHeader) {
      if (out.bare_offset != 0 || !s_read_header(section, out.header))
        return false;
      out.bare_offset = encoded.size() - from.rest.size();
    }
    if (descriptor == kProperties)
      return s_read_properties(section, out);
    if (descriptor > kProperties)
      return true;
  }
  return !encoded.empty();
}

std::string encode_header(const message_header& header) {
  if (!header.durable && header.priority == 4 && !header.ttl_ms && header.delivery_count == 0) {
    return {};
  }
  std::string fields;
  fields.push_back(static_cast<char>(header.durable ? kTrue : kFalse));
  fields.push_back(static_cast<char>(kUbyte));
  fields.push_back(static_cast<char>(header.priority));
  if (header.ttl_ms) {
    s_put_number(fields, kUint, *header.ttl_ms);
  } else {
    fields.push_back(static_cast<char>(kNull));
  }
  fields.push_back(static_cast<char>(header.delivery_count == 0 ? kTrue : kFalse));
  s_put_number(fields, kUint, header.delivery_count);

  std::string section{'\0', static_cast<char>(kSmallUlong), static_cast<char>(kHeader),
                      static_cast<char>(kList8)};
  section.push_back(static_cast<char>(fields.size() + 1));
  section.push_back(static_cast<char>(kHeaderFields));
  return section + fields;
}

}  // namespace kv_suite
