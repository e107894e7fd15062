#pragma once
// Services of a scan chain, for tests and demonstrations: each answers scan requests as its
// description says, or looks at the object as "kv-av-mimescan" does. Pure, save for the segment
// that a request names. Any thread.

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kv_suite {

inline constexpr const char* kMimescanQueue = "kv-av-mimescan";

struct chain_service {
  std::string name;       // queue that it serves
  bool mimescan = false;  // answers what libmagic makes of the object; the rest is not used
  std::int32_t code = 0;  // "ReturnCode", of the default row too
  std::string reason;     // "Blocking-reason" and "Virusname"; empty: none
  std::string error;      // "Error"; empty: none
  std::string rows;       // JSON array of rows; empty: one row for the object
  std::string text;       // sent as it stands instead of a reply; empty: not used
  bool never = false;     // does not answer
  int threads = 4;        // requests that it answers at once
  std::chrono::milliseconds delay{0};
};

// Reads NAME=SPEC, where SPEC is a JSON object, a number for {"code": number}, "mimescan", or @FILE
// with one of these. Throws std::runtime_error with a text for the person at the screen.
[[nodiscard]] chain_service parse_chain_service(const std::string& text);

struct chain_request {
  std::string json;
  std::span<const char> data;  // of the message
};

// The reply's text, or nothing where the service does not answer. Does not wait.
[[nodiscard]] std::optional<std::string> answer_chain_request(const chain_service& service,
                                                              const chain_request& request);

// One JSON line that shows what a service was asked.
[[nodiscard]] std::string show_chain_request(const chain_service& service,
                                             const chain_request& request);

// What libmagic says of an object's first bytes.
struct content_type {
  std::string mime_type;
  std::string mime_encoding;
  std::string text;
  std::string extension;  // with its dot; empty when it is not known
};
// Nothing when the library cannot be used.
[[nodiscard]] std::optional<content_type> find_content_type(std::span<const char> bytes);

}  // namespace kv_suite
