#include "activecontent/PDFscan_internal.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

// A keyword in front of any other byte is part of a longer name, or of something else.
constexpr std::string_view kDelimiters = "[\\]\n\r ()/:";

// Set in lower case letters, clear in upper case ones.
constexpr char kCaseBit = 0x20;
constexpr std::uint32_t kCaseBits = 0x20202020;

constexpr char s_lower(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + ('a' - 'A')) : byte;
}
constexpr char s_upper(char byte) {
  return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - ('a' - 'A')) : byte;
}
constexpr std::size_t s_index(char byte) {
  return static_cast<unsigned char>(byte);
}

bool s_equal_caseless(const char* text, std::string_view word) {
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (s_lower(text[i]) != s_lower(word[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace

kv_pdf_keywords::kv_pdf_keywords(const kv_pdf_keyword_t* table) {
  while (count_ < KV_PDF_MAX_KEYWORDS && table[count_].keyword[0] != '\0') {
    words_[count_] = table[count_].keyword;
    beginnings_[count_] = s_beginning(words_[count_]);
    add(count_);
    ++count_;
  }
}

kv_pdf_keywords::beginning kv_pdf_keywords::s_beginning(std::string_view word) {
  std::array<char, sizeof(std::uint32_t)> bytes{};
  std::array<char, sizeof(std::uint32_t)> mask{};
  for (std::size_t i = 0; i < std::min(word.size(), bytes.size()); ++i) {
    bytes[i] = static_cast<char>(word[i] | kCaseBit);
    mask[i] = static_cast<char>(0xff);
  }
  return {std::bit_cast<std::uint32_t>(bytes), std::bit_cast<std::uint32_t>(mask)};
}

// Reads four bytes.
bool kv_pdf_keywords::may_stand_at(std::size_t row, const char* bytes) const {
  std::uint32_t present = 0;
  std::memcpy(&present, bytes, sizeof present);
  return ((present | kCaseBits) & beginnings_[row].mask) == beginnings_[row].bytes;
}

void kv_pdf_keywords::add(std::size_t row) {
  const auto bit = static_cast<row_set>(1U << row);
  const std::string_view word = words_[row];
  for (const char first : {s_lower(word[0]), s_upper(word[0])}) {
    if (rows_by_first_[s_index(first)] == 0) {
      starter_bytes_[starter_count_++] = _mm_set1_epi8(first);
    }
    rows_by_first_[s_index(first)] |= bit;
  }
  if (word.size() == 1) {  // whatever follows
    for (row_set& rows : rows_by_second_) {
      rows |= bit;
    }
    return;
  }
  rows_by_second_[s_index(s_lower(word[1]))] |= bit;
  rows_by_second_[s_index(s_upper(word[1]))] |= bit;
}

std::uint64_t kv_pdf_keywords::starters(const char* bytes) const {
  const kv_byte_block block = kv_byte_block::load(bytes);
  kv_byte_block any{};
  for (std::size_t i = 0; i < starter_count_; ++i) {
    const __m128i wanted = starter_bytes_[i];
    any = any | block.map([&](__m128i part) { return _mm_cmpeq_epi8(part, wanted); });
  }
  return any.bits();
}

void kv_pdf_keywords::examine(const kv_text_window& dictionary, std::size_t at, unsigned rows,
                              row_set& unseen, row_set& counting) const {
  const char* bytes = dictionary.bytes + at;
  const bool has_beginning = dictionary.size - at >= sizeof(std::uint32_t);
  for (; rows != 0; rows &= rows - 1) {
    const auto row = static_cast<std::size_t>(std::countr_zero(rows));
    if (has_beginning && !may_stand_at(row, bytes)) {
      continue;
    }
    const std::string_view word = words_[row];
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

std::int32_t kv_pdf_keywords::find(const kv_text_window& dictionary) const {
  auto unseen = static_cast<row_set>((1U << count_) - 1);
  row_set counting = 0;
  kv_block_reader reader{dictionary};
  for (std::size_t offset = 0; offset + 1 < dictionary.size; offset += KV_BLOCK_SIZE) {
    // The last byte cannot begin a keyword with a byte behind it.
    std::uint64_t candidates =
        starters(reader.at(offset)) & kv_low_bits(dictionary.size - 1 - offset);
    for (; candidates != 0 && unseen != 0; candidates &= candidates - 1) {
      const std::size_t at = offset + kv_first_bit(candidates);
      const unsigned rows = rows_of(dictionary.bytes + at) & unseen;
      if (rows != 0) {
        examine(dictionary, at, rows, unseen, counting);
      }
    }
  }
  return counting == 0 ? KV_PDF_NO_MATCH : std::countr_zero(counting);
}
