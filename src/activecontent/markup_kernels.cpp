#include "activecontent/markup_kernels.h"

#include <immintrin.h>

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

// Which buckets each byte of a vector fits at the four offsets.
struct fits128 {
  __m128i at[kKeyLength];
};
struct fits256 {
  __m256i at[kKeyLength];
};

KV_SSSE3 inline __m128i s_table128(const std::array<std::uint8_t, 16>& table) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(&table));
}

KV_AVX2 inline __m256i s_table256(const std::array<std::uint8_t, 16>& table) {
  return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(&table)));
}

KV_SSSE3 inline fits128 s_fits128(const char* text, const fits128& low, const fits128& high) {
  const __m128i half = _mm_set1_epi8(0x0F);
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const __m128i low_half = _mm_and_si128(bytes, half);
  const __m128i high_half = _mm_and_si128(_mm_srli_epi16(bytes, 4), half);
  fits128 result;
  for (std::size_t k = 0; k < kKeyLength; ++k) {
    result.at[k] = _mm_and_si128(_mm_shuffle_epi8(low.at[k], low_half),
                                 _mm_shuffle_epi8(high.at[k], high_half));
  }
  return result;
}

KV_AVX2 inline fits256 s_fits256(const char* text, const fits256& low, const fits256& high) {
  const __m256i half = _mm256_set1_epi8(0x0F);
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text));
  const __m256i low_half = _mm256_and_si256(bytes, half);
  const __m256i high_half = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), half);
  fits256 result;
  for (std::size_t k = 0; k < kKeyLength; ++k) {
    result.at[k] = _mm256_and_si256(_mm256_shuffle_epi8(low.at[k], low_half),
                                    _mm256_shuffle_epi8(high.at[k], high_half));
  }
  return result;
}

// One bit per byte of this vector at which some bucket fits at all four offsets.
KV_SSSE3 inline std::uint64_t s_marks128(const fits128& here, const fits128& next) {
  __m128i all = _mm_and_si128(here.at[0], _mm_alignr_epi8(next.at[1], here.at[1], 1));
  all = _mm_and_si128(all, _mm_alignr_epi8(next.at[2], here.at[2], 2));
  all = _mm_and_si128(all, _mm_alignr_epi8(next.at[3], here.at[3], 3));
  const int none = _mm_movemask_epi8(_mm_cmpeq_epi8(all, _mm_setzero_si128()));
  return static_cast<std::uint16_t>(~none);
}

// The upper half of one vector and the lower half of the next.
KV_AVX2 inline __m256i s_middle256(const __m256i& here, const __m256i& next) {
  return _mm256_permute2x128_si256(here, next, 0x21);
}

KV_AVX2 inline std::uint64_t s_marks256(const fits256& here, const fits256& next) {
  const __m256i one = s_middle256(here.at[1], next.at[1]);
  const __m256i two = s_middle256(here.at[2], next.at[2]);
  const __m256i three = s_middle256(here.at[3], next.at[3]);
  __m256i all = _mm256_and_si256(here.at[0], _mm256_alignr_epi8(one, here.at[1], 1));
  all = _mm256_and_si256(all, _mm256_alignr_epi8(two, here.at[2], 2));
  all = _mm256_and_si256(all, _mm256_alignr_epi8(three, here.at[3], 3));
  const int none = _mm256_movemask_epi8(_mm256_cmpeq_epi8(all, _mm256_setzero_si256()));
  return static_cast<std::uint32_t>(~none);
}

KV_SSSE3 void s_candidates_ssse3(const char* text, std::size_t words, std::uint64_t* marked) {
  fits128 low;
  fits128 high;
  for (std::size_t k = 0; k < kKeyLength; ++k) {
    low.at[k] = s_table128(kTables.low[k]);
    high.at[k] = s_table128(kTables.high[k]);
  }
  fits128 here = s_fits128(text, low, high);
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t bits = 0;
    for (unsigned part = 0; part < kWordBytes; part += 16) {
      text += 16;
      const fits128 next = s_fits128(text, low, high);
      bits |= s_marks128(here, next) << part;
      here = next;
    }
    marked[word] = bits;
  }
}

KV_AVX2 void s_candidates_avx2(const char* text, std::size_t words, std::uint64_t* marked) {
  fits256 low;
  fits256 high;
  for (std::size_t k = 0; k < kKeyLength; ++k) {
    low.at[k] = s_table256(kTables.low[k]);
    high.at[k] = s_table256(kTables.high[k]);
  }
  fits256 here = s_fits256(text, low, high);
  for (std::size_t word = 0; word < words; ++word) {
    const fits256 middle = s_fits256(text + 32, low, high);
    const fits256 next = s_fits256(text + 64, low, high);
    marked[word] = s_marks256(here, middle) | s_marks256(middle, next) << 32;
    here = next;
    text += kWordBytes;
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

kv_simd_level kv_best_simd_level() {
  static const kv_simd_level level = [] {
    if (__builtin_cpu_supports("avx2")) {
      return kv_simd_level::avx2;
    }
    return __builtin_cpu_supports("ssse3") ? kv_simd_level::ssse3 : kv_simd_level::scalar;
  }();
  return level;
}

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
