// Counting delimiters across line feeds.
#include <array>
#include <utility>

#include "activecontent/kvactivecontent_csv_internal.h"

namespace {

// How many delimiters stand from an offset to the end of the text, for each state of quoting that
// the offset may be reached in.
struct suffix_counts {
  std::array<std::size_t, 3> by_quoting{};

  [[nodiscard]] std::size_t& in(kv_csv_quoting state) {
    return by_quoting[static_cast<std::size_t>(state)];
  }
};

}  // namespace

std::size_t kv_csv_count(std::string_view text, char delimiter, std::size_t limit) {
  std::size_t count = 0;
  kv_csv_quoting inside = kv_csv_quoting::none;
  for (std::size_t at = 0; at < text.size() && count <= limit; ++at) {
    const char byte = text[at];
    if (byte == '\\') {
      ++at;
    } else if (byte == '"' && inside != kv_csv_quoting::in_single) {
      const bool closes = inside == kv_csv_quoting::in_double;
      inside = closes ? kv_csv_quoting::none : kv_csv_quoting::in_double;
      count += closes && byte == delimiter ? 1 : 0;
    } else if (byte == '\'' && inside != kv_csv_quoting::in_double) {
      const bool closes = inside == kv_csv_quoting::in_single;
      inside = closes ? kv_csv_quoting::none : kv_csv_quoting::in_single;
      count += closes && byte == delimiter ? 1 : 0;
    } else if (inside == kv_csv_quoting::none && byte == delimiter) {
      ++count;
    }
  }
  return count;
}

// One pass from the end gives the answer for all empty lines: counting each rest would take
// quadratic time.
kv_csv_empty_line kv_csv_first_bad_empty_line(std::string_view text, char delimiter,
                                              std::size_t wanted) {
  kv_csv_empty_line bad{std::string_view::npos, 0};
  suffix_counts behind;      // from the offset behind the current one
  suffix_counts two_behind;  // from the one behind that
  for (std::size_t at = text.size(); at-- > 0;) {
    suffix_counts here = behind;
    const char byte = text[at];
    if (byte == '\n' && (at == 0 || text[at - 1] == '\n') &&
        behind.in(kv_csv_quoting::none) != wanted) {
      bad = {at, behind.in(kv_csv_quoting::none)};
    } else if (byte == '\\') {
      here = two_behind;
    } else if (byte == '"') {
      std::swap(here.in(kv_csv_quoting::none), here.in(kv_csv_quoting::in_double));
    } else if (byte == '\'') {
      std::swap(here.in(kv_csv_quoting::none), here.in(kv_csv_quoting::in_single));
    } else if (byte == delimiter) {
      ++here.in(kv_csv_quoting::none);
    }
    two_behind = behind;
    behind = here;
  }
  return bad;
}

std::size_t s_CountDelimiters(const void* bytes, std::size_t length, char delimiter) {
  return kv_csv_count({static_cast<const char*>(bytes), length}, delimiter, KV_CSV_NO_LIMIT);
}
