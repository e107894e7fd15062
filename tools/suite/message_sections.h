#pragma once
// The sections of one encoded AMQP 1.0 message (OASIS AMQP 1.0, part 3, section 3.2), read only as
// far as a broker needs: the header, and the address in the properties. The body is never decoded,
// so that whatever a producer sent reaches the consumer byte for byte. Pure functions, any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv_suite {

// Header section (3.2.1). An absent field keeps its default.
struct message_header {
  bool durable = false;
  std::uint8_t priority = 4;
  std::optional<std::uint32_t> ttl_ms;  // absent: the message does not expire
  std::uint32_t delivery_count = 0;     // earlier delivery attempts that failed
};

struct message_sections {
  message_header header;
  std::size_t bare_offset = 0;  // where everything behind the header section begins
  std::string_view to;          // "to" of the properties section; views the encoded message
  std::string_view reply_to;    // "reply-to" of the same
};

// Reads the sections up to the properties. False when the bytes are no message: a section that is
// cut, of unknown number, or whose header or properties are not lists of the standard's types.
[[nodiscard]] bool read_message_sections(std::string_view encoded, message_sections& out);

// Header section as it goes in front of the rest of the message; empty when every field has its
// default.
[[nodiscard]] std::string encode_header(const message_header& header);

}  // namespace kv_suite
