#include "activecontent/PDFscan_internal.h"

#include <algorithm>
#include <bit>

namespace {

// A keyword in front of any other byte is part of a longer name, or of something else.
constexpr std::string_view kDelimiters = "[\\]\n\r ()/:";

// Behind these a keyword may stand in parts: an escape, and a zero byte, which is left out.
constexpr std::string_view kHiding("#\0", 2);

constexpr std::size_t s_index(char byte) {
  return static_cast<unsigned char>(byte);
}

bool s_equal_caseless(const char* text, std::string_view word) {
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (kv_pdf_lower(text[i]) != kv_pdf_lower(word[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace

kv_pdf_keywords::kv_pdf_keywords(const kv_pdf_keyword_t* table, kv_simd_level level)
    : kernels_(kv_pdf_kernels_of(level)) {
  while (count_ < KV_PDF_MAX_KEYWORDS && table[count_].keyword[0] != '\0') {
    words_[count_] = table[count_].keyword;
    ++count_;
  }
  // Neighbours in the table share a bucket. Bytes that keywords may come out of have their own.
  constexpr std::size_t kWordBuckets = kv_pdf_keys::kBuckets - kHiding.size();
  for (std::size_t i = 0; i < kHiding.size(); ++i) {
    keys_.admit(kHiding.substr(i, 1), kWordBuckets + i);
  }
  for (std::size_t row = 0; row < count_; ++row) {
    const std::string_view word = words_[row];
    keys_.admit(word, row * kWordBuckets / std::max(count_, kWordBuckets));
    for (const char first : {kv_pdf_lower(word[0]), kv_pdf_upper(word[0])}) {
      rows_by_first_[s_index(first)] |= static_cast<row_set>(1U << row);
    }
  }
}

void kv_pdf_keywords::examine(const kv_text_window& dictionary, std::size_t at, unsigned rows,
                              row_set& unseen, row_set& counting) const {
  const char* bytes = dictionary.bytes + at;
  for (; rows != 0; rows &= rows - 1) {
    const std::string_view word = words_[static_cast<std::size_t>(std::countr_zero(rows))];
    if (word.size() >= dictionary.size - at || !s_equal_caseless(bytes, word)) {
      continue;
    }
    const auto bit = static_cast<row_set>(rows & (~rows + 1));
    unseen &= static_cast<row_set>(~bit);
    if (kDelimiters.find(bytes[word.size()]) != std::string_view::npos) {
      counting |= bit;
    }
  }
}

bool kv_pdf_keywords::may_stand_in(const kv_text_window& object) const {
  kv_block_reader reader{object};
  for (std::size_t offset = 0; offset < object.size; offset += KV_BLOCK_SIZE) {
    if ((kernels_.words(keys_, reader.at(offset)) & kv_low_bits(object.size - offset)) != 0) {
      return true;
    }
  }
  return false;
}

std::int32_t kv_pdf_keywords::find(const kv_text_window& dictionary) const {
  auto unseen = static_cast<row_set>((1U << count_) - 1);
  row_set counting = 0;
  kv_block_reader reader{dictionary};
  for (std::size_t offset = 0; offset + 1 < dictionary.size; offset += KV_BLOCK_SIZE) {
    // The last byte cannot begin a keyword with a byte behind it.
    std::uint64_t candidates =
        kernels_.words(keys_, reader.at(offset)) & kv_low_bits(dictionary.size - 1 - offset);
    for (; candidates != 0; candidates &= candidates - 1) {
      const std::size_t at = offset + kv_first_bit(candidates);
      const unsigned rows = rows_by_first_[s_index(dictionary.bytes[at])] & unseen;
      if (rows != 0) {
        examine(dictionary, at, rows, unseen, counting);
      }
    }
  }
  return counting == 0 ? KV_PDF_NO_MATCH : std::countr_zero(counting);
}
