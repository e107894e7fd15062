#pragma once
// The markup scan as it reads in plain words: byte by byte, one search per word, a copy wherever
// the algorithm makes one. Slow on purpose; the product's scan is held against it. No state, any
// thread.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct markup_reference_job {
  bool html_eventhandler = false;
  bool html_script = false;
  bool xml_javascript = false;
  bool xml_xslt = false;
  std::string mime_type = "text/html";
  std::string name = "object";
};

// An embedded object as it was handed on.
struct markup_child {
  std::string name;
  std::string content;
  bool operator==(const markup_child&) const = default;
};

struct markup_outcome {
  std::int32_t code = 0;
  std::string reason;
  std::string error;
  std::vector<markup_child> children;
  bool operator==(const markup_outcome&) const = default;
};

// What the owner of the hand-over answers for a child.
using markup_answer = std::function<std::int32_t(const markup_child&)>;

[[nodiscard]] markup_outcome markup_reference_scan(const markup_reference_job& job,
                                                   std::string_view bytes,
                                                   const markup_answer& answer);

[[nodiscard]] std::string markup_reference_decode(std::string_view text);
// The next tag from position on; false at the end of the text.
[[nodiscard]] bool markup_reference_next_tag(std::string_view text, std::size_t& position,
                                             std::string& tag);
[[nodiscard]] std::string markup_reference_remove_quoted(std::string_view tag);
[[nodiscard]] bool markup_reference_is_isolated(std::string_view text, std::size_t position,
                                                std::size_t length);
// The name of the first handler in table order whose first occurrence is isolated, or "".
[[nodiscard]] std::string markup_reference_handler(std::string_view tag);
