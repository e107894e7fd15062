#include "activecontent/PDFscan_marks.h"

#include <immintrin.h>

#include "activecontent/kv_byte_blocks.h"

#define KV_SSSE3 __attribute__((target("ssse3")))
#define KV_AVX2 __attribute__((target("avx2")))

namespace {

constexpr unsigned kHalf = 0x0F;

void s_admit(kv_pdf_keys& keys, std::size_t offset, char byte, std::uint8_t bit) {
  const auto value = static_cast<unsigned char>(byte);
  keys.low[offset][value & kHalf] |= bit;
  keys.high[offset][value >> 4] |= bit;
}

// All three bytes at once.
kv_pdf_object_marks s_objects(const char* bytes, std::size_t blocks) {
  for (std::size_t block = 0; block < blocks; ++block, bytes += KV_BLOCK_SIZE) {
    const kv_byte_block hits = kv_byte_block::load(bytes).equal_bytes('o') &
                               kv_byte_block::load(bytes + 1).equal_bytes('b') &
                               kv_byte_block::load(bytes + 2).equal_bytes('j');
    if (hits.any()) {
      return {block, hits.bits()};
    }
  }
  return {blocks, 0};
}

std::uint64_t s_words(const kv_pdf_keys& keys, const char* bytes) {
  std::uint64_t marks = 0;
  for (std::size_t i = 0; i < KV_BLOCK_SIZE; ++i) {
    unsigned fit = 0xFF;
    for (std::size_t offset = 0; offset < kv_pdf_keys::kLength && fit != 0; ++offset) {
      const auto byte = static_cast<unsigned char>(bytes[i + offset]);
      fit &= keys.low[offset][byte & kHalf] & keys.high[offset][byte >> 4];
    }
    marks |= std::uint64_t{fit != 0} << i;
  }
  return marks;
}

KV_SSSE3 inline __m128i s_fit128(const kv_pdf_keys& keys, std::size_t offset, const char* bytes) {
  const __m128i half = _mm_set1_epi8(kHalf);
  const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + offset));
  const __m128i low = _mm_load_si128(reinterpret_cast<const __m128i*>(&keys.low[offset]));
  const __m128i high = _mm_load_si128(reinterpret_cast<const __m128i*>(&keys.high[offset]));
  return _mm_and_si128(_mm_shuffle_epi8(low, _mm_and_si128(text, half)),
                       _mm_shuffle_epi8(high, _mm_and_si128(_mm_srli_epi16(text, 4), half)));
}

KV_SSSE3 std::uint64_t s_words_ssse3(const kv_pdf_keys& keys, const char* bytes) {
  std::uint64_t none = 0;
  for (unsigned part = 0; part < KV_BLOCK_SIZE; part += sizeof(__m128i)) {
    const __m128i fit = _mm_and_si128(
        _mm_and_si128(s_fit128(keys, 0, bytes + part), s_fit128(keys, 1, bytes + part)),
        s_fit128(keys, 2, bytes + part));
    const int misses = _mm_movemask_epi8(_mm_cmpeq_epi8(fit, _mm_setzero_si128()));
    none |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(misses)) << part;
  }
  return ~none;
}

KV_AVX2 inline __m256i s_load256(const char* bytes) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
}

KV_AVX2 inline __m256i s_objects256(const char* bytes) {
  const __m256i o = _mm256_cmpeq_epi8(s_load256(bytes), _mm256_set1_epi8('o'));
  const __m256i b = _mm256_cmpeq_epi8(s_load256(bytes + 1), _mm256_set1_epi8('b'));
  const __m256i j = _mm256_cmpeq_epi8(s_load256(bytes + 2), _mm256_set1_epi8('j'));
  return _mm256_and_si256(_mm256_and_si256(o, b), j);
}

KV_AVX2 kv_pdf_object_marks s_objects_avx2(const char* bytes, std::size_t blocks) {
  for (std::size_t block = 0; block < blocks; ++block, bytes += KV_BLOCK_SIZE) {
    const __m256i low = s_objects256(bytes);
    const __m256i high = s_objects256(bytes + 32);
    const __m256i both = _mm256_or_si256(low, high);
    if (_mm256_testz_si256(both, both) == 0) {
      const auto high_bits = static_cast<std::uint32_t>(_mm256_movemask_epi8(high));
      return {block, static_cast<std::uint32_t>(_mm256_movemask_epi8(low)) |
                         static_cast<std::uint64_t>(high_bits) << 32};
    }
  }
  return {blocks, 0};
}

KV_AVX2 inline __m256i s_fit256(const kv_pdf_keys& keys, std::size_t offset, const char* bytes) {
  const __m256i half = _mm256_set1_epi8(kHalf);
  const __m256i text = s_load256(bytes + offset);
  const __m256i low = _mm256_broadcastsi128_si256(
      _mm_load_si128(reinterpret_cast<const __m128i*>(&keys.low[offset])));
  const __m256i high = _mm256_broadcastsi128_si256(
      _mm_load_si128(reinterpret_cast<const __m128i*>(&keys.high[offset])));
  return _mm256_and_si256(
      _mm256_shuffle_epi8(low, _mm256_and_si256(text, half)),
      _mm256_shuffle_epi8(high, _mm256_and_si256(_mm256_srli_epi16(text, 4), half)));
}

KV_AVX2 inline std::uint64_t s_words256(const kv_pdf_keys& keys, const char* bytes) {
  const __m256i fit =
      _mm256_and_si256(_mm256_and_si256(s_fit256(keys, 0, bytes), s_fit256(keys, 1, bytes)),
                       s_fit256(keys, 2, bytes));
  return ~static_cast<std::uint32_t>(
      _mm256_movemask_epi8(_mm256_cmpeq_epi8(fit, _mm256_setzero_si256())));
}

KV_AVX2 std::uint64_t s_words_avx2(const kv_pdf_keys& keys, const char* bytes) {
  return s_words256(keys, bytes) | s_words256(keys, bytes + 32) << 32;
}

constexpr kv_pdf_kernels kScalar{s_objects, s_words};
constexpr kv_pdf_kernels kSsse3{s_objects, s_words_ssse3};
constexpr kv_pdf_kernels kAvx2{s_objects_avx2, s_words_avx2};

}  // namespace

void kv_pdf_keys::admit(std::string_view word, std::size_t bucket) {
  const auto bit = static_cast<std::uint8_t>(1U << bucket);
  for (std::size_t offset = 0; offset < kLength; ++offset) {
    if (offset < word.size()) {
      s_admit(*this, offset, kv_pdf_lower(word[offset]), bit);
      s_admit(*this, offset, kv_pdf_upper(word[offset]), bit);
      continue;
    }
    for (std::size_t half = 0; half <= kHalf; ++half) {
      low[offset][half] |= bit;
      high[offset][half] |= bit;
    }
  }
}

const kv_pdf_kernels& kv_pdf_kernels_of(kv_simd_level level) {
  switch (level) {
    case kv_simd_level::avx2:
      return kAvx2;
    case kv_simd_level::ssse3:
      return kSsse3;
    default:
      return kScalar;
  }
}
