#define KV_LOG_UNIT "PDFscan"
#include "activecontent/PDFscan_internal.h"
#include "logging/log-helper.h"

namespace {

constexpr std::size_t kPair = 2;  // bytes of "<<" and ">>"

// Bits of the pairs that lie whole within the text; the last byte of it begins none.
std::uint64_t s_pair_bits(const kv_text_window& text, std::size_t offset) {
  return kv_low_bits(text.size - 1 - offset);
}

// Finds the first "<<" and counts levels from it on, from pair to pair.
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
        if (joins_brackets(at)) {
          return outcome::zero;
        }
        continue;
      }
      if (byte != text_.bytes[at + 1] || (byte != '<' && depth_ == 0)) {
        continue;
      }
      begin_ = depth_ == 0 ? at : begin_;
      taken_ = at + kPair;
      depth_ += byte == '<' ? 1 : std::size_t{0} - 1;
      if (depth_ == 0) {
        return outcome::closed;
      }
    }
    return outcome::open;
  }
  // The first "<<".
  [[nodiscard]] std::size_t begin() const { return begin_; }
  // Bytes up to the last pair's end.
  [[nodiscard]] std::size_t taken() const { return taken_; }

 private:
  // Without the zero byte there may be one pair more: anywhere between the levels, and in front of
  // them behind a "<".
  [[nodiscard]] bool joins_brackets(std::size_t at) const {
    return depth_ != 0 || (at > 0 && text_.bytes[at - 1] == '<');
  }

  kv_text_window text_;
  std::size_t begin_ = 0;
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
  kv_block_reader reader{object};
  level_counter levels{object};
  for (std::size_t offset = 0; offset < object.size; offset += KV_BLOCK_SIZE) {
    switch (levels.take(offset, s_level_marks(object, reader.at(offset), offset))) {
      case level_counter::outcome::closed:
        return {kv_pdf_presence::found,
                object.from(levels.begin()).first(levels.taken() - levels.begin())};
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
