#include "activecontent/markup_matcher.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

using markup_literals::kAll;
using markup_literals::kCount;
using markup_literals::kNone;

constexpr std::size_t kWordBytes = 64;
constexpr std::size_t kKeyLength = 4;

// Sets one bit in each byte: equal for a letter's two cases. It also joins a few bytes that are no
// letters, so a key only selects what is then compared exactly.
constexpr std::uint32_t kCaseBits = 0x20202020;

constexpr std::uint32_t s_key(std::string_view text) {
  std::uint32_t key = 0;
  for (std::size_t i = 0; i < kKeyLength; ++i) {
    const unsigned byte = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
    key |= byte << (8 * i);
  }
  return key | kCaseBits;
}

// Literals grouped by key, in each group the longest first. The one shorter than a key is not
// among them.
constexpr markup_literals::id kShort = markup_literals::kFirstBanned + 3;
static_assert(kAll[kShort].text() == "xsl");  // no other begins with these letters
constexpr std::uint32_t kShortKeyMask = 0x00FFFFFF;

constexpr std::array<markup_literals::id, kCount - 1> kByKey = [] {
  std::array<markup_literals::id, kCount - 1> order{};
  std::size_t next = 0;
  for (std::size_t i = 0; i < kCount; ++i) {
    if (i != kShort) {
      order[next++] = static_cast<markup_literals::id>(i);
    }
  }
  std::ranges::sort(order, [](markup_literals::id left, markup_literals::id right) {
    const std::uint32_t left_key = s_key(kAll[left].text());
    const std::uint32_t right_key = s_key(kAll[right].text());
    return left_key != right_key ? left_key < right_key : kAll[left].length > kAll[right].length;
  });
  return order;
}();

// A hash table of the groups with open addressing.
struct group {
  std::uint32_t key = 0;
  std::uint8_t first = 0;
  std::uint8_t count = 0;  // 0: a free place
};
constexpr std::size_t kGroupPlaces = 512;

constexpr std::size_t s_place(std::uint32_t key) {
  return (key * 0x9E3779B1U >> 23) % kGroupPlaces;
}

constexpr std::array<group, kGroupPlaces> kGroups = [] {
  std::array<group, kGroupPlaces> groups{};
  for (std::size_t i = 0; i < kByKey.size();) {
    const std::uint32_t key = s_key(kAll[kByKey[i]].text());
    group found{key, static_cast<std::uint8_t>(i), 0};
    while (i < kByKey.size() && s_key(kAll[kByKey[i]].text()) == key) {
      ++found.count;
      ++i;
    }
    std::size_t place = s_place(key);
    while (groups[place].count != 0) {
      place = (place + 1) % kGroupPlaces;
    }
    groups[place] = found;
  }
  return groups;
}();

const group& s_find_group(std::uint32_t key) {
  std::size_t place = s_place(key);
  while (kGroups[place].count != 0 && kGroups[place].key != key) {
    place = (place + 1) % kGroupPlaces;
  }
  return kGroups[place];
}

bool s_begins_with(std::string_view text, const markup_literals::literal& literal) {
  std::size_t i = 0;
  while (i < literal.length && i < text.size() && kv_fold(text[i]) == literal.folded[i]) {
    ++i;
  }
  return i == literal.length;
}

std::uint32_t s_key_at(std::string_view text) {
  std::uint32_t key = 0;
  if (text.size() >= kKeyLength) {
    std::memcpy(&key, text.data(), kKeyLength);  // one load
  } else {
    std::memcpy(&key, text.data(), text.size());
  }
  return key | kCaseBits;
}

// The longest literal that the text begins with.
markup_literals::id s_identify(std::string_view text) {
  const std::uint32_t key = s_key_at(text);
  if ((key & kShortKeyMask) == (s_key(kAll[kShort].text()) & kShortKeyMask)) {
    return s_begins_with(text, kAll[kShort]) ? kShort : kNone;
  }
  const group& candidates = s_find_group(key);
  for (std::size_t i = 0; i < candidates.count; ++i) {
    const markup_literals::id number = kByKey[candidates.first + i];
    if (s_begins_with(text, kAll[number])) {
      return number;
    }
  }
  return kNone;
}

}  // namespace

bool kv_literal_matcher::mark_next_chunk() {
  chunk_ = behind_;
  const std::size_t left = text_.size() - chunk_;
  if (left == 0) {
    return false;
  }
  if (left >= kWordBytes + KV_KERNEL_MARGIN) {
    words_ = std::min(kChunkWords, (left - KV_KERNEL_MARGIN) / kWordBytes);
    kernels_.candidates(text_.data() + chunk_, words_, marked_.data());
  } else {
    // The end of the text, with room behind it for what the classifier reads.
    std::array<char, 2 * kWordBytes + KV_KERNEL_MARGIN> padded{};
    std::memcpy(padded.data(), text_.data() + chunk_, left);
    words_ = (left + kWordBytes - 1) / kWordBytes;
    kernels_.candidates(padded.data(), words_, marked_.data());
  }
  behind_ = std::min(text_.size(), chunk_ + words_ * kWordBytes);
  word_ = 0;
  marks_ = marked_[0];
  return true;
}

bool kv_literal_matcher::next(kv_literal_hit& hit) {
  while (true) {
    while (marks_ == 0) {
      if (++word_ < words_) {
        marks_ = marked_[word_];
      } else if (!mark_next_chunk()) {
        return false;
      }
    }
    const auto bit = static_cast<std::size_t>(std::countr_zero(marks_));
    marks_ &= marks_ - 1;
    const std::size_t position = chunk_ + word_ * kWordBytes + bit;
    if (position >= text_.size()) {
      continue;  // a mark in the padding
    }
    const markup_literals::id number = s_identify(text_.substr(position));
    if (number != kNone) {
      hit = {position, number};
      return true;
    }
  }
}
