// The broker's reading of foreign bytes: message sections and the SASL PLAIN response.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "broker_sasl.h"
#include "message_sections.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kv_suite::plain_credential credential;
  static_cast<void>(kv_suite::read_plain_response(bytes, credential));

  kv_suite::message_sections sections;
  if (!kv_suite::read_message_sections(bytes, sections))
    return 0;
  if (sections.bare_offset > size)
    std::abort();
  // What is sent in place of the header reads back as the same header.
  const std::string header = kv_suite::encode_header(sections.header);
  kv_suite::message_sections again;
  if (!header.empty() && !kv_suite::read_message_sections(header, again))
    std::abort();
  if (again.header.delivery_count != sections.header.delivery_count ||
      again.header.ttl_ms != sections.header.ttl_ms ||
      (again.header.priority != sections.header.priority)) {
    std::abort();
  }
  return 0;
}
