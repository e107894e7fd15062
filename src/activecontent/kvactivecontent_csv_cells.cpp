// Which cells are formulas. Cells are what stands between delimiters: line feeds lie inside, quotes
// mean nothing, and there are no empty ones.
#define KV_LOG_UNIT "kvactivecontent_csv"
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_csv_marks.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"

namespace {

enum class byte_kind : std::uint8_t { other, white_space, leading, number, delimiter };

// What a byte may be in a cell that counts. White space is that of the C locale. Number bytes are
// those that the injection pattern takes for part of a number; in its bracket expression the
// backslash stands for itself.
constexpr std::array<byte_kind, 256> s_kinds() {
  std::array<byte_kind, 256> kinds{};
  for (const char byte : {' ', '\t', '\n', '\v', '\f', '\r'}) {
    kinds[static_cast<unsigned char>(byte)] = byte_kind::white_space;
  }
  for (const char byte : {'=', '+', '-', '@'}) {
    kinds[static_cast<unsigned char>(byte)] = byte_kind::leading;
  }
  for (const char byte : std::string_view("0123456789.,\\")) {
    kinds[static_cast<unsigned char>(byte)] = byte_kind::number;
  }
  return kinds;
}
constexpr std::array<byte_kind, 256> kKinds = s_kinds();

byte_kind s_kind(char byte) {
  return kKinds[static_cast<unsigned char>(byte)];
}

// The cell without white space at its ends. It begins with a byte that is none.
std::string_view s_trim_end(std::string_view cell) {
  std::size_t size = cell.size();
  while (size > 1 && s_kind(cell[size - 1]) == byte_kind::white_space) {
    --size;
  }
  return cell.substr(0, size);
}

// The first byte behind the leading one that is no part of a number: without it the pattern cannot
// match.
std::size_t s_find_deciding_byte(std::string_view trimmed) {
  std::size_t at = 1;
  while (at < trimmed.size() && s_kind(trimmed[at]) == byte_kind::number) {
    ++at;
  }
  return at;
}

class injection_search {
 public:
  injection_search(std::string_view text, char delimiter, kv_csv_pattern& pattern,
                   kv_simd_level level, std::pmr::memory_resource& memory, char* reason,
                   char* error)
      : text_(text),
        delimiter_(delimiter),
        kernels_(kv_csv_kernels_of(level)),
        pattern_(pattern),
        subject_(&memory),
        reason_(reason),
        error_(error) {
    kinds_[static_cast<unsigned char>(delimiter)] = byte_kind::delimiter;
    while (numbers_from_ > 0 && kind_at(numbers_from_ - 1) == byte_kind::number) {
      --numbers_from_;
    }
  }

  // The code of the first cell that has one.
  std::int32_t run() {
    std::int32_t code = test_cell(0);
    kv_csv_marks delimiters;
    kv_csv_for_each_chunk(text_, [&](const char* bytes, std::size_t words, std::size_t offset) {
      kernels_.formulas(bytes, words, delimiter_, delimiters.data());
      for (std::size_t word = 0; word < words; ++word, offset += KV_BLOCK_SIZE) {
        for (std::uint64_t left = delimiters[word]; left != 0; left &= left - 1) {
          const std::size_t begin = offset + kv_first_bit(left) + 1;
          if (!is_harmless(begin) && code == KV_RESULT_CLEAN) {
            code = test_cell(begin);
          }
        }
      }
      return code == KV_RESULT_CLEAN;
    });
    return code;
  }

 private:
  // Most cells need no closer look: nothing leads them, or they are numbers.
  [[nodiscard]] bool is_harmless(std::size_t begin) const {
    const std::size_t first = behind_white_space(begin);
    return kind_at(first) != byte_kind::leading ||
           (!traced_ && kind_at(number_end(first + 1)) == byte_kind::delimiter);
  }

  // Tests the cell that begins at an offset.
  std::int32_t test_cell(std::size_t begin) {
    const std::size_t first = behind_white_space(begin);
    if (kind_at(first) != byte_kind::leading) {
      return KV_RESULT_CLEAN;
    }
    const std::size_t end = std::min(text_.find(delimiter_, first), text_.size());
    return test_formula(text_.substr(begin, end - begin),
                        s_trim_end(text_.substr(first, end - first)));
  }

  [[nodiscard]] std::size_t behind_white_space(std::size_t at) const {
    while (kind_at(at) == byte_kind::white_space) {
      ++at;
    }
    return at;
  }

  // The first byte at or behind an offset that is no part of a number.
  [[nodiscard]] std::size_t number_end(std::size_t at) const {
    if (at >= numbers_from_) {
      return text_.size();
    }
    while (kinds_[static_cast<unsigned char>(text_[at])] == byte_kind::number) {
      ++at;
    }
    return at;
  }

  std::int32_t test_formula(std::string_view cell, std::string_view trimmed) {
    const bool doubled = trimmed.size() > 1 && trimmed[1] == trimmed[0];
    if (cell.size() < 2 || doubled) {
      return KV_RESULT_CLEAN;
    }
    if (traced_) {
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Found Leading \"%c\" in cell \"%s\"", trimmed[0],
                std::string(trimmed).c_str());
    }
    const std::size_t deciding = s_find_deciding_byte(trimmed);
    const std::int32_t code =
        deciding == trimmed.size() ? KV_RESULT_CLEAN : match(trimmed, deciding);
    if (traced_ && code == KV_RESULT_CLEAN) {
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "regex match found only digits");
    }
    return code == KV_RESULT_ACTIVE_CONTENT ? report(cell) : code;
  }

  // Asks the pattern itself; a cell gets this far at most once in most texts.
  std::int32_t match(std::string_view trimmed, std::size_t deciding) {
    if (!make_subject(trimmed, deciding)) {
      return fail("Failed to allocate buffer \"_cell\"");
    }
    switch (pattern_.match(subject_.c_str())) {
      case kv_csv_match::yes:
        return KV_RESULT_ACTIVE_CONTENT;
      case kv_csv_match::no:
        return KV_RESULT_CLEAN;
      default:
        return fail("Error matching regex");
    }
  }

  // The cell up to its deciding byte; of a very long number only the end.
  bool make_subject(std::string_view trimmed, std::size_t deciding) {
    const std::size_t from = deciding > KV_CSV_MAX_SUBJECT ? deciding - KV_CSV_MAX_SUBJECT : 1;
    try {
      subject_.assign(1, trimmed[0]);
      subject_.append(trimmed.substr(from, deciding + 1 - from));
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  std::int32_t report(std::string_view cell) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "regex match found characters");
    // What does not fit is cut.
    const int printed =
        std::snprintf(reason_, KV_REASON_SIZE, "\"CSV-injection: %.*s\" detected",
                      static_cast<int>(std::min(cell.size(), KV_REASON_SIZE)), cell.data());
    static_cast<void>(printed);
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kDetector, "%s", reason_);
    return KV_RESULT_ACTIVE_CONTENT;
  }

  std::int32_t fail(const char* text) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kDetector, "%s", text);
    static_cast<void>(std::snprintf(error_, KV_REASON_SIZE, "%s", text));
    return KV_RESULT_FAILED;
  }

  static constexpr const char* kDetector = "kvactivecontent_csv_command";

  // The end of the text is a delimiter too.
  [[nodiscard]] byte_kind kind_at(std::size_t at) const {
    return at < text_.size() ? kinds_[static_cast<unsigned char>(text_[at])] : byte_kind::delimiter;
  }

  std::string_view text_;
  char delimiter_;
  std::size_t numbers_from_ = text_.size();  // from here on there is nothing else
  std::array<byte_kind, 256> kinds_ = kKinds;
  const kv_csv_kernels& kernels_;
  kv_csv_pattern& pattern_;
  std::pmr::string subject_;
  char* reason_;
  char* error_;
  // Asked once: a table may hold a million numbers with a sign.
  bool traced_ = log_is_enabled(KV_LOG_LEVEL_DEBUG);
};

}  // namespace

std::int32_t kv_csv_find_injection(std::string_view text, char delimiter, kv_csv_pattern& pattern,
                                   kv_simd_level level, std::pmr::memory_resource& memory,
                                   char* reason, char* error) {
  return injection_search(text, delimiter, pattern, level, memory, reason, error).run();
}
