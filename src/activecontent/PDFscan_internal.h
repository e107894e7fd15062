#pragma once
// The parts of the PDF scanner that work on one object: finding its first dictionary, undoing the
// escapes in it, and finding keywords. Private to the scanner and its tests. Pure, apart from trace
// lines; any thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string>
#include <string_view>

#include "activecontent/PDFscan.h"
#include "activecontent/kv_byte_blocks.h"

enum class kv_pdf_presence {
  found,
  absent,
  behind_zero,  // a zero byte stands where brackets may join over it: look again in a clean copy
};

struct kv_pdf_dictionary_t {
  kv_pdf_presence presence;
  kv_text_window window;  // from "<<" to ">>", when found
};

// The first dictionary of an object's text. Brackets are taken two at a time: ">>>>" closes two
// levels, and of "<<<" the third opens nothing.
[[nodiscard]] kv_pdf_dictionary_t kv_pdf_find_dictionary(const kv_text_window& object);

// Appends the dictionary to out with its name escapes undone ("#4a" is "J"). True when there was
// one.
[[nodiscard]] bool kv_pdf_canonicalise(std::string_view dictionary, std::pmr::string& out);

// A keyword table prepared for many dictionaries. Of each keyword only the first occurrence in a
// dictionary is examined, and it counts only in front of a delimiter.
class kv_pdf_keywords {
 public:
  explicit kv_pdf_keywords(const kv_pdf_keyword_t* table);

  // The lowest row whose keyword counts, or KV_PDF_NO_MATCH.
  [[nodiscard]] std::int32_t find(const kv_text_window& dictionary) const;

 private:
  using row_set = std::uint16_t;  // one bit for each row
  static_assert(KV_PDF_MAX_KEYWORDS <= 16);

  void add(std::size_t row);
  void add_starter(char byte);
  [[nodiscard]] std::uint64_t starters(const char* bytes) const;
  // Rows that may begin with the two bytes.
  [[nodiscard]] unsigned rows_of(const char* bytes) const {
    return static_cast<unsigned>(rows_by_first_[static_cast<unsigned char>(bytes[0])] &
                                 rows_by_second_[static_cast<unsigned char>(bytes[1])]);
  }
  // The bytes at the beginning of a word, alike for both letter cases; a few other bytes look alike
  // too.
  struct beginning {
    std::uint32_t bytes;
    std::uint32_t mask;  // ones for the bytes that a short word has
  };
  static beginning s_beginning(std::string_view word);
  [[nodiscard]] bool may_stand_at(std::size_t row, const char* bytes) const;

  void examine(const kv_text_window& dictionary, std::size_t at, unsigned rows, row_set& unseen,
               row_set& counting) const;

  std::array<std::string_view, KV_PDF_MAX_KEYWORDS> words_{};
  std::array<beginning, KV_PDF_MAX_KEYWORDS> beginnings_{};
  std::size_t count_ = 0;
  __m128i starter_bytes_[2 * KV_PDF_MAX_KEYWORDS];  // first bytes, each once, in all places
  std::size_t starter_count_ = 0;
  std::array<row_set, 256> rows_by_first_{};   // rows whose word begins with the byte
  std::array<row_set, 256> rows_by_second_{};  // rows whose word goes on with the byte
};
