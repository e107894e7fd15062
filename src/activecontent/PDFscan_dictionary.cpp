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
  for (std::size_t offset = 0; offset < object.size; offset += KV_BLOCK_SIZE) {
    const char* bytes = reader.at(offset);
    const std::uint64_t less = kv_byte_block::load(bytes).equal('<');
    if (less == 0) {
      continue;
    }
    const kv_byte_block next = kv_byte_block::load(bytes + 1);
    const std::uint64_t candidates =
        less & (next.equal('<') | next.equal('\0')) & s_pair_bits(object, offset);
    if (candidates != 0) {
      const std::size_t at = offset + kv_first_bit(candidates);
      return {object.bytes[at + 1] == '<' ? kv_pdf_presence::found : kv_pdf_presence::behind_zero,
              at};
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

std::uint64_t s_level_marks(const kv_text_window& text, const char* bytes, std::size_t offset) {
  const kv_byte_block here = kv_byte_block::load(bytes);
  const kv_byte_block next = kv_byte_block::load(bytes + 1);
  const std::uint64_t pairs =
      (here.equal('<') & next.equal('<')) | (here.equal('>') & next.equal('>'));
  return (pairs & s_pair_bits(text, offset)) | (here.equal('\0') & kv_low_bits(text.size - offset));
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
