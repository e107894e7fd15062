#pragma once
// The check for formula injection written out line by line and copy by copy, without a thought for
// speed: what the product is held against in differential tests. Collects the lines that a trace
// at TRACE level would show.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct csv_reference_result {
  std::int32_t code = 0;
  std::string reason;
  std::string error;
  std::vector<std::string> log;
};

[[nodiscard]] csv_reference_result csv_reference_check(std::string_view bytes);

[[nodiscard]] std::size_t csv_reference_count_delimiters(std::string_view bytes, char delimiter);

// What the injection pattern says of a cell: 1 or 0.
[[nodiscard]] int csv_reference_match(const char* cell);
