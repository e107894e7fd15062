#define KV_LOG_UNIT "PDFscan"
#include "activecontent/PDFscan_internal.h"
#include "logging/log-helper.h"

namespace {

constexpr std::size_t kPair = 2;  // bytes of "<<" and ">>"

// Bits of the pairs that lie whole within the text; the last byte of it begins none.
std::uint64_t s_pair_bits(const kv_text_window& text, std::size_t offset) {
  return kv_low_bits(text.size - 1 - offset);
}

struct opening {
  kv_pdf_presence presence;
  std::size_t at;
};

// The first "<<". A "<" with a zero byte behind it may be half of one.
opening s_find_opening(const kv_text_window& object) {
  kv_block_reader reader{object};
  for (std::size_t offset = 0; offset + 1 < object.size; offset += KV_BLOCK_SIZE) {
    std::uint64_t hits =
        kv_byte_block::load(reader.at(offset)).equal('<') & s_pair_bits(object, offset);
    for (; hits != 0; hits &= hits - 1) {
      const std::size_t at = offset + kv_first_bit(hits);
      if (object.bytes[at + 1] == '<') {
        return {kv_pdf_presence::found, at};
      }
      if (object.bytes[at + 1] == '\0') {
        return {kv_pdf_presence::behind_zero, at};
      }
    }
  }
  return {kv_pdf_presence::absent, 0};
}

// Counts levels from pair to pair.
class level_counter {
 public:
  explicit level_counter(const kv_text_window& text) : text_(text) {}

  enum class outcome { open, closed, zero };

  // Takes the marked bytes of a block in order.
  outcome take(std::size_t offset, std::uint64_t marks) {
    for (; marks != 0; marks &= marks - 1) {
      const std::size_t at = offset + kv_first_bit(marks);
      if (at < taken_) {
        continue;
      }
      const char byte = text_.bytes[at];
      if (byte == '\0') {
        return outcome::zero;
      }
      if (byte != text_.bytes[at + 1]) {
        continue;
      }
      taken_ = at + kPair;
      depth_ += byte == '<' ? 1 : std::size_t{0} - 1;
      if (depth_ == 0) {
        return outcome::closed;
      }
    }
    return outcome::open;
  }
  // Bytes up to the last pair's end.
  [[nodiscard]] std::size_t taken() const { return taken_; }

 private:
  kv_text_window text_;
  std::size_t depth_ = 0;
  std::size_t taken_ = 0;
};

// Zero bytes, and brackets with a bracket behind them: pairs, and mixed ones among them.
std::uint64_t s_level_marks(const kv_text_window& text, const char* bytes, std::size_t offset) {
  constexpr char kDifference = '<' ^ '>';
  const __m128i difference = _mm_set1_epi8(kDifference);
  const kv_byte_block block = kv_byte_block::load(bytes);
  const std::uint64_t brackets =
      block.map([&](__m128i part) { return _mm_or_si128(part, difference); })
          .equal('<' | kDifference);
  const bool goes_on = (bytes[KV_BLOCK_SIZE] | kDifference) == ('<' | kDifference);
  const std::uint64_t next = brackets >> 1 | std::uint64_t{goes_on} << (KV_BLOCK_SIZE - 1);
  const std::uint64_t pairs = brackets & next & s_pair_bits(text, offset);
  const kv_byte_block zeros = block.equal_bytes('\0');
  return zeros.any() ? pairs | (zeros.bits() & kv_low_bits(text.size - offset)) : pairs;
}

int s_hex_value(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  const int letter = digit | 0x20;
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

}  // namespace

kv_pdf_dictionary_t kv_pdf_find_dictionary(const kv_text_window& object) {
  const opening open = s_find_opening(object);
  if (open.presence != kv_pdf_presence::found) {
    return {open.presence, {}};
  }
  const kv_text_window text = object.from(open.at);
  kv_block_reader reader{text};
  level_counter levels{text};
  for (std::size_t offset = 0; offset < text.size; offset += KV_BLOCK_SIZE) {
    switch (levels.take(offset, s_level_marks(text, reader.at(offset), offset))) {
      case level_counter::outcome::closed:
        return {kv_pdf_presence::found, text.first(levels.taken())};
      case level_counter::outcome::zero:
        return {kv_pdf_presence::behind_zero, {}};
      default:
        break;
    }
  }
  return {kv_pdf_presence::absent, {}};
}

bool kv_pdf_canonicalise(std::string_view dictionary, std::pmr::string& out) {
  const std::size_t last = dictionary.size() - kPair;  // the closing ">>" is copied as it is
  bool inside = false;
  bool replaced = false;
  std::size_t at = 0;
  while (at < last) {
    if (dictionary[at] == '<' && dictionary[at + 1] == '<') {
      inside = true;
    } else if (dictionary[at] == '>' && dictionary[at + 1] == '>') {
      inside = false;
    }
    const int high = dictionary[at] == '#' && inside ? s_hex_value(dictionary[at + 1]) : -1;
    const int low = high >= 0 ? s_hex_value(dictionary[at + 2]) : -1;
    if (low < 0) {
      out.push_back(dictionary[at]);
      ++at;
      continue;
    }
    KV_LOG_TRACE("Found hex encoded character");
    out.push_back(static_cast<char>(high * 16 + low));
    replaced = true;
    at += 3;
  }
  out.append(dictionary.substr(last));
  return replaced;
}
