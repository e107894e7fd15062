#pragma once
// Look-up tables of the literal pass, computed by the compiler from the list of literals. The first
// four bytes of each literal are a key; keys are spread over eight buckets, one bit each; a byte of
// the text fits a bucket at offset k when the entries of its low and its high half share the
// bucket's bit. Constant; any thread.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "activecontent/markup_literals.h"

namespace markup_kernel_tables {

inline constexpr std::size_t kKeyLength = 4;
inline constexpr std::size_t kBuckets = 8;

// A shorter literal leaves the rest of its key open.
struct nibble_masks {
  std::array<std::uint16_t, kKeyLength> low{};
  std::array<std::uint16_t, kKeyLength> high{};
};

constexpr void admit(nibble_masks& masks, std::size_t offset, char c) {
  const auto byte = static_cast<unsigned char>(c);
  masks.low[offset] |= static_cast<std::uint16_t>(1U << (byte & 0x0F));
  masks.high[offset] |= static_cast<std::uint16_t>(1U << (byte >> 4));
}

constexpr nibble_masks admit(nibble_masks masks, std::string_view text) {
  for (std::size_t offset = 0; offset < kKeyLength; ++offset) {
    if (offset >= text.size()) {
      masks.low[offset] = masks.high[offset] = 0xFFFF;
      continue;
    }
    const char c = text[offset];
    admit(masks, offset, c);
    if (c >= 'a' && c <= 'z') {
      admit(masks, offset, static_cast<char>(c - 'a' + 'A'));
    }
  }
  return masks;
}

// How many of all four-byte texts fit: what a bucket costs in false candidates.
constexpr std::uint64_t cost(const nibble_masks& masks) {
  std::uint64_t product = 1;
  for (std::size_t offset = 0; offset < kKeyLength; ++offset) {
    product *= static_cast<std::uint64_t>(std::popcount(masks.low[offset])) *
               static_cast<std::uint64_t>(std::popcount(masks.high[offset]));
  }
  return product;
}

// Each literal goes where it adds least.
constexpr std::array<nibble_masks, kBuckets> spread() {
  std::array<nibble_masks, kBuckets> buckets{};
  for (const auto& literal : markup_literals::kAll) {
    std::size_t best = 0;
    std::uint64_t best_growth = UINT64_MAX;
    for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
      const std::uint64_t growth =
          cost(admit(buckets[bucket], literal.text())) - cost(buckets[bucket]);
      if (growth < best_growth) {
        best_growth = growth;
        best = bucket;
      }
    }
    buckets[best] = admit(buckets[best], literal.text());
  }
  return buckets;
}

struct tables {
  alignas(16) std::array<std::array<std::uint8_t, 16>, kKeyLength> low{};
  alignas(16) std::array<std::array<std::uint8_t, 16>, kKeyLength> high{};
};

inline constexpr tables kTables = [] {
  const auto buckets = spread();
  tables result;
  for (std::size_t offset = 0; offset < kKeyLength; ++offset) {
    for (std::size_t nibble = 0; nibble < 16; ++nibble) {
      for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
        const auto bit = static_cast<std::uint8_t>(1U << bucket);
        if ((buckets[bucket].low[offset] >> nibble & 1) != 0) {
          result.low[offset][nibble] |= bit;
        }
        if ((buckets[bucket].high[offset] >> nibble & 1) != 0) {
          result.high[offset][nibble] |= bit;
        }
      }
    }
  }
  return result;
}();

// The bytes that end, quote or break a tag have different low halves, so that one look-up by the
// low half gives the only byte that this one may be; a half without such a byte gives 0, which has
// another half.
inline constexpr std::string_view kTagBytes{"<>\"!\r\n\0", 7};
alignas(16) inline constexpr std::array<std::uint8_t, 16> kTagByteOfLowHalf = [] {
  std::array<std::uint8_t, 16> table{};
  for (const char c : kTagBytes) {
    table[static_cast<unsigned char>(c) & 0x0F] = static_cast<std::uint8_t>(c);
  }
  return table;
}();

}  // namespace markup_kernel_tables
