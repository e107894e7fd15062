#include "activecontent/markup_kernels.h"

#include <immintrin.h>

#include <algorithm>
#include <array>

#include "activecontent/markup_kernel_tables.h"

// Vector code is in functions with target attributes of their own, so that the rest of the program
// runs on any x86-64 processor.
#define KV_SSSE3 __attribute__((target("ssse3")))
#define KV_AVX2 __attribute__((target("avx2")))

namespace {

using markup_kernel_tables::kKeyLength;
using markup_kernel_tables::kTables;
using markup_kernel_tables::kTagByteOfLowHalf;

constexpr std::size_t kWordBytes = 64;

void s_candidates_scalar(const char* text, std::size_t words, std::uint64_t* marked) {
  for (std::size_t i = 0; i < words * kWordBytes; ++i) {
    unsigned fit = 0xFF;
    for (std::size_t offset = 0; offset < kKeyLength; ++offset) {
      const auto byte = static_cast<unsigned char>(text[i + offset]);
      fit &= kTables.low[offset][byte & 0x0F] & kTables.high[offset][byte >> 4];
    }
    const std::uint64_t bit = std::uint64_t{fit != 0} << (i % kWordBytes);
    marked[i / kWordBytes] = i % kWordBytes == 0 ? bit : marked[i / kWordBytes] | bit;
  }
}

void s_structure_scalar(const char* text, std::size_t words, std::uint64_t* less_than,
                        std::uint64_t* events) {
  for (std::size_t word = 0; word < words; ++word) {
    less_than[word] = events[word] = 0;
    for (std::size_t i = 0; i < kWordBytes; ++i) {
      const auto byte = static_cast<unsigned char>(text[word * kWordBytes + i]);
      std::uint64_t* const kind = byte == '<' ? less_than : events;
      kind[word] |= std::uint64_t{kTagByteOfLowHalf[byte & 0x0F] == byte} << i;
    }
  }
}

KV_SSSE3 inline __m128i s_table128(const std::array<std::uint8_t, 16>& table) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(&table));
}

KV_AVX2 inline __m256i s_table256(const std::array<std::uint8_t, 16>& table) {
  return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(&table)));
}

// The buckets that each byte fits at one offset. A byte above 127 looks up no bucket by its low
// half as it stands, which is right where every literal has a byte of its own; where one is open
// the low half is taken alone.
static_assert(std::ranges::all_of(markup_literals::kAll, [](const auto& literal) {
  return std::size_t{literal.length} + 1 >= kKeyLength;
}));

KV_SSSE3 inline __m128i s_fit128(const char* text, __m128i low, __m128i high) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const __m128i high_half = _mm_and_si128(_mm_srli_epi16(bytes, 4), _mm_set1_epi8(0x0F));
  return _mm_and_si128(_mm_shuffle_epi8(low, bytes), _mm_shuffle_epi8(high, high_half));
}

KV_SSSE3 inline __m128i s_fit_open128(const char* text, __m128i low, __m128i high) {
  const __m128i half = _mm_set1_epi8(0x0F);
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const __m128i high_half = _mm_and_si128(_mm_srli_epi16(bytes, 4), half);
  return _mm_and_si128(_mm_shuffle_epi8(low, _mm_and_si128(bytes, half)),
                       _mm_shuffle_epi8(high, high_half));
}

KV_AVX2 inline __m256i s_fit256(const char* text, __m256i low, __m256i high) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text));
  const __m256i high_half = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), _mm256_set1_epi8(0x0F));
  return _mm256_and_si256(_mm256_shuffle_epi8(low, bytes), _mm256_shuffle_epi8(high, high_half));
}

KV_AVX2 inline __m256i s_fit_open256(const char* text, __m256i low, __m256i high) {
  const __m256i half = _mm256_set1_epi8(0x0F);
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text));
  const __m256i high_half = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), half);
  return _mm256_and_si256(_mm256_shuffle_epi8(low, _mm256_and_si256(bytes, half)),
                          _mm256_shuffle_epi8(high, high_half));
}

// The tables stand in variables one by one, so that they stay in registers.
KV_SSSE3 void s_candidates_ssse3(const char* text, std::size_t words, std::uint64_t* marked) {
  const __m128i low0 = s_table128(kTables.low[0]);
  const __m128i low1 = s_table128(kTables.low[1]);
  const __m128i low2 = s_table128(kTables.low[2]);
  const __m128i low3 = s_table128(kTables.low[3]);
  const __m128i high0 = s_table128(kTables.high[0]);
  const __m128i high1 = s_table128(kTables.high[1]);
  const __m128i high2 = s_table128(kTables.high[2]);
  const __m128i high3 = s_table128(kTables.high[3]);
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t none = 0;
    for (unsigned part = 0; part < kWordBytes; part += 16) {
      __m128i fit = _mm_and_si128(s_fit128(text, low0, high0), s_fit128(text + 1, low1, high1));
      fit = _mm_and_si128(fit, s_fit128(text + 2, low2, high2));
      fit = _mm_and_si128(fit, s_fit_open128(text + 3, low3, high3));
      const int misses = _mm_movemask_epi8(_mm_cmpeq_epi8(fit, _mm_setzero_si128()));
      none |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(misses)) << part;
      text += 16;
    }
    marked[word] = ~none;
  }
}

KV_AVX2 void s_candidates_avx2(const char* text, std::size_t words, std::uint64_t* marked) {
  const __m256i low0 = s_table256(kTables.low[0]);
  const __m256i low1 = s_table256(kTables.low[1]);
  const __m256i low2 = s_table256(kTables.low[2]);
  const __m256i low3 = s_table256(kTables.low[3]);
  const __m256i high0 = s_table256(kTables.high[0]);
  const __m256i high1 = s_table256(kTables.high[1]);
  const __m256i high2 = s_table256(kTables.high[2]);
  const __m256i high3 = s_table256(kTables.high[3]);
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t none = 0;
    for (unsigned part = 0; part < kWordBytes; part += 32) {
      __m256i fit = _mm256_and_si256(s_fit256(text, low0, high0), s_fit256(text + 1, low1, high1));
      fit = _mm256_and_si256(fit, s_fit256(text + 2, low2, high2));
      fit = _mm256_and_si256(fit, s_fit_open256(text + 3, low3, high3));
      const int misses = _mm256_movemask_epi8(_mm256_cmpeq_epi8(fit, _mm256_setzero_si256()));
      none |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(misses)) << part;
      text += 32;
    }
    marked[word] = ~none;
  }
}

KV_SSSE3 void s_structure_ssse3(const char* text, std::size_t words, std::uint64_t* less_than,
                                std::uint64_t* events) {
  const __m128i table = s_table128(kTagByteOfLowHalf);
  const __m128i opening = _mm_set1_epi8('<');
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t openings = 0;
    std::uint64_t all = 0;
    for (unsigned part = 0; part < kWordBytes; part += 16) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + part));
      // A byte above 127 looks up 0, which it is not.
      const __m128i known = _mm_cmpeq_epi8(_mm_shuffle_epi8(table, bytes), bytes);
      const __m128i less = _mm_cmpeq_epi8(bytes, opening);
      all |= static_cast<std::uint64_t>(static_cast<std::uint16_t>(_mm_movemask_epi8(known)))
             << part;
      openings |= static_cast<std::uint64_t>(static_cast<std::uint16_t>(_mm_movemask_epi8(less)))
                  << part;
    }
    less_than[word] = openings;
    events[word] = all & ~openings;
    text += kWordBytes;
  }
}

KV_AVX2 void s_structure_avx2(const char* text, std::size_t words, std::uint64_t* less_than,
                              std::uint64_t* events) {
  const __m256i table = s_table256(kTagByteOfLowHalf);
  const __m256i opening = _mm256_set1_epi8('<');
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t openings = 0;
    std::uint64_t all = 0;
    for (unsigned part = 0; part < kWordBytes; part += 32) {
      const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text + part));
      const __m256i known = _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, bytes), bytes);
      const __m256i less = _mm256_cmpeq_epi8(bytes, opening);
      all |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm256_movemask_epi8(known)))
             << part;
      openings |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm256_movemask_epi8(less)))
                  << part;
    }
    less_than[word] = openings;
    events[word] = all & ~openings;
    text += kWordBytes;
  }
}

constexpr kv_markup_kernels kScalar{s_candidates_scalar, s_structure_scalar};
constexpr kv_markup_kernels kSsse3{s_candidates_ssse3, s_structure_ssse3};
constexpr kv_markup_kernels kAvx2{s_candidates_avx2, s_structure_avx2};

}  // namespace

const kv_markup_kernels& kv_kernels_of(kv_simd_level level) {
  switch (level) {
    case kv_simd_level::avx2:
      return kAvx2;
    case kv_simd_level::ssse3:
      return kSsse3;
    default:
      return kScalar;
  }
}
