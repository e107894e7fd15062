#include "activecontent/kvactivecontent_csv_marks.h"

#include <immintrin.h>

#define KV_SSSE3 __attribute__((target("ssse3")))
#define KV_AVX2 __attribute__((target("avx2")))

namespace {

// With these bits set, the bytes "+", "-" and "=" are alike; ")", "/", "9", ";" and "?" too.
constexpr char kSignBits = '+' ^ '-' ^ ('-' ^ '=');
constexpr char kSign = '+' | kSignBits;
static_assert(('-' | kSignBits) == kSign && ('=' | kSignBits) == kSign);

// Bytes up to this one are white space or control characters; those from 0x80 up count as negative
// and go with them.
constexpr char kLastBlank = ' ';

void s_equal(const char* text, std::size_t words, char value, std::uint64_t* marks) {
  for (std::size_t word = 0; word < words; ++word) {
    marks[word] = kv_byte_block::load(text + word * KV_BLOCK_SIZE).equal(value);
  }
}

bool s_holds_hiding(const char* text, std::size_t words) {
  kv_byte_block all{};
  for (std::size_t word = 0; word < words; ++word) {
    const kv_byte_block bytes = kv_byte_block::load(text + word * KV_BLOCK_SIZE);
    all = all | bytes.equal_bytes('"') | bytes.equal_bytes('\'') | bytes.equal_bytes('\\');
  }
  return all.any();
}

// Bytes that are neither a leading character nor white space.
__m128i s_leads_nothing(__m128i bytes) {
  const __m128i signs =
      _mm_cmpeq_epi8(_mm_or_si128(bytes, _mm_set1_epi8(kSignBits)), _mm_set1_epi8(kSign));
  const __m128i leading = _mm_or_si128(signs, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('@')));
  return _mm_andnot_si128(leading, _mm_cmpgt_epi8(bytes, _mm_set1_epi8(kLastBlank)));
}

void s_formulas(const char* text, std::size_t words, char delimiter, std::uint64_t* marks) {
  for (std::size_t word = 0; word < words; ++word) {
    const char* const bytes = text + word * KV_BLOCK_SIZE;
    const kv_byte_block delimiters = kv_byte_block::load(bytes).equal_bytes(delimiter);
    const kv_byte_block next = kv_byte_block::load(bytes + 1);
    marks[word] = delimiters.without(next.map(s_leads_nothing)).bits();
  }
}

// The bytes that hide have different low halves, so that one look-up by the low half gives the only
// one that a byte may be; a half without one gives a byte of another half. A byte from 0x80 up
// looks up 0, which it is not.
alignas(16) constexpr std::array<char, 16> kHidingByteOfLowHalf{1,    0, '"', 0, 0, 0,   0,
                                                                '\'', 0, 0,   0, 0, '\\'};

KV_SSSE3 inline __m128i s_hides(__m128i table, __m128i bytes) {
  return _mm_cmpeq_epi8(_mm_shuffle_epi8(table, bytes), bytes);
}

KV_SSSE3 bool s_holds_hiding_ssse3(const char* text, std::size_t words) {
  const __m128i table = _mm_load_si128(reinterpret_cast<const __m128i*>(&kHidingByteOfLowHalf));
  kv_byte_block all{};
  for (const char* const end = text + words * KV_BLOCK_SIZE; text != end; text += KV_BLOCK_SIZE) {
    const kv_byte_block bytes = kv_byte_block::load(text);
    all = all | kv_byte_block{{s_hides(table, bytes.parts[0]), s_hides(table, bytes.parts[1]),
                               s_hides(table, bytes.parts[2]), s_hides(table, bytes.parts[3])}};
  }
  return all.any();
}

KV_AVX2 inline __m256i s_load256(const char* text) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text));
}

KV_AVX2 inline std::uint64_t s_bits256(__m256i low, __m256i high) {
  const auto high_bits = static_cast<std::uint32_t>(_mm256_movemask_epi8(high));
  return static_cast<std::uint32_t>(_mm256_movemask_epi8(low)) |
         static_cast<std::uint64_t>(high_bits) << 32;
}

KV_AVX2 inline std::uint64_t s_equal256(const char* text, __m256i value) {
  return s_bits256(_mm256_cmpeq_epi8(s_load256(text), value),
                   _mm256_cmpeq_epi8(s_load256(text + 32), value));
}

KV_AVX2 void s_equal_avx2(const char* text, std::size_t words, char value, std::uint64_t* marks) {
  const __m256i wanted = _mm256_set1_epi8(value);
  for (std::size_t word = 0; word < words; ++word) {
    marks[word] = s_equal256(text + word * KV_BLOCK_SIZE, wanted);
  }
}

KV_AVX2 bool s_holds_hiding_avx2(const char* text, std::size_t words) {
  const __m256i table = _mm256_broadcastsi128_si256(
      _mm_load_si128(reinterpret_cast<const __m128i*>(&kHidingByteOfLowHalf)));
  __m256i all = _mm256_setzero_si256();
  for (const char* const end = text + words * KV_BLOCK_SIZE; text != end; text += KV_BLOCK_SIZE) {
    const __m256i low = s_load256(text);
    const __m256i high = s_load256(text + 32);
    all = _mm256_or_si256(all, _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, low), low));
    all = _mm256_or_si256(all, _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, high), high));
  }
  return _mm256_testz_si256(all, all) == 0;
}

KV_AVX2 inline __m256i s_leads_nothing256(__m256i bytes) {
  const __m256i signs = _mm256_cmpeq_epi8(_mm256_or_si256(bytes, _mm256_set1_epi8(kSignBits)),
                                          _mm256_set1_epi8(kSign));
  const __m256i leading = _mm256_or_si256(signs, _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8('@')));
  return _mm256_andnot_si256(leading, _mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(kLastBlank)));
}

KV_AVX2 void s_formulas_avx2(const char* text, std::size_t words, char delimiter,
                             std::uint64_t* marks) {
  const __m256i wanted = _mm256_set1_epi8(delimiter);
  for (std::size_t word = 0; word < words; ++word) {
    const char* const bytes = text + word * KV_BLOCK_SIZE;
    const __m256i low = _mm256_cmpeq_epi8(s_load256(bytes), wanted);
    const __m256i high = _mm256_cmpeq_epi8(s_load256(bytes + 32), wanted);
    marks[word] = s_bits256(_mm256_andnot_si256(s_leads_nothing256(s_load256(bytes + 1)), low),
                            _mm256_andnot_si256(s_leads_nothing256(s_load256(bytes + 33)), high));
  }
}

constexpr kv_csv_kernels kSse2{s_equal, s_holds_hiding, s_formulas};
constexpr kv_csv_kernels kSsse3{s_equal, s_holds_hiding_ssse3, s_formulas};
constexpr kv_csv_kernels kAvx2{s_equal_avx2, s_holds_hiding_avx2, s_formulas_avx2};

}  // namespace

const kv_csv_kernels& kv_csv_kernels_of(kv_simd_level level) {
  switch (level) {
    case kv_simd_level::avx2:
      return kAvx2;
    case kv_simd_level::ssse3:
      return kSsse3;
    default:
      return kSse2;
  }
}
