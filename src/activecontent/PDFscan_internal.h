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
#include "activecontent/PDFscan_marks.h"
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
  kv_pdf_keywords(const kv_pdf_keyword_t* table, kv_simd_level level);

  // False when no keyword stands in an object's text, nor can come out of its escapes and zero
  // bytes: then its dictionary need not be looked for.
  [[nodiscard]] bool may_stand_in(const kv_text_window& object) const;

  // The lowest row whose keyword counts, or KV_PDF_NO_MATCH.
  [[nodiscard]] std::int32_t find(const kv_text_window& dictionary) const;

 private:
  using row_set = std::uint16_t;  // one bit for each row
  static_assert(KV_PDF_MAX_KEYWORDS <= 16);

  // Takes those of the rows whose keywords stand at an offset out of unseen; the ones that count go
  // into counting.
  void examine(const kv_text_window& dictionary, std::size_t at, unsigned rows, row_set& unseen,
               row_set& counting) const;

  const kv_pdf_kernels& kernels_;
  kv_pdf_keys keys_;
  std::array<std::string_view, KV_PDF_MAX_KEYWORDS> words_{};
  std::size_t count_ = 0;
  std::array<row_set, 256> rows_by_first_{};  // rows whose word begins with the byte
};
