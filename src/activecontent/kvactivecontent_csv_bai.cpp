// Bank statements (BAI2, now X9.121): records of comma-separated fields, one a line, each ended by
// "/". Their amounts carry signs, which would be taken for formulas.
#include <algorithm>
#include <array>
#include <cstring>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_csv_marks.h"

namespace {

constexpr std::array<std::string_view, 5> kRecordPrefixes{"01,", "02,", "03,", "98,", "99,"};
constexpr char kRecordEnd = '/';
constexpr int kThreshold = 4;  // so many record lines may stand in any table

bool s_is_line_break(char byte) {
  return byte == '\r' || byte == '\n';
}

// The beginning of the line that goes up to end, at or behind floor.
std::size_t s_line_begin(std::string_view text, std::size_t floor, std::size_t end) {
  for (const char line_break : {'\n', '\r'}) {
    const void* found = memrchr(text.data() + floor, line_break, end - floor);
    if (found != nullptr) {
      floor = static_cast<std::size_t>(static_cast<const char*>(found) - text.data()) + 1;
    }
  }
  return floor;
}

class record_counter {
 public:
  explicit record_counter(std::string_view text) : text_(text) {}

  // Takes a record end's offset, in ascending order.
  void take(std::size_t at) {
    if (at + 1 < text_.size() && !s_is_line_break(text_[at + 1])) {
      return;
    }
    const std::size_t begin = s_line_begin(text_, floor_, at);
    floor_ = at + 1;
    const std::string_view line = text_.substr(begin, at - begin);
    if (std::ranges::any_of(kRecordPrefixes,
                            [&](std::string_view prefix) { return line.starts_with(prefix); })) {
      ++count_;
    }
  }
  [[nodiscard]] int count() const { return count_; }

 private:
  std::string_view text_;
  std::size_t floor_ = 0;  // behind the line before
  int count_ = 0;
};

}  // namespace

bool kv_csv_is_bai(std::string_view text, kv_simd_level level) {
  const kv_csv_kernels& kernels = kv_csv_kernels_of(level);
  record_counter records{text};
  kv_csv_marks ends;
  kv_csv_for_each_chunk(text, [&](const char* bytes, std::size_t words, std::size_t offset) {
    kernels.equal(bytes, words, kRecordEnd, ends.data());
    for (std::size_t word = 0; word < words; ++word) {
      for (std::uint64_t left = ends[word]; left != 0; left &= left - 1) {
        records.take(offset + word * KV_BLOCK_SIZE + kv_first_bit(left));
      }
    }
    return records.count() <= kThreshold;
  });
  return records.count() > kThreshold;
}
