// Every version of the byte classifiers against plain loops over the bytes.
#include "activecontent/kvactivecontent_csv_marks.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/simd_levels.h"

using namespace std::string_view_literals;

namespace {

bool marked(const kv_csv_marks& marks, std::size_t at) {
  return (marks[at / 64] >> (at % 64) & 1) != 0;
}

bool may_lead(char byte) {
  return "=+-@ \t\n\v\f\r"sv.find(byte) != std::string_view::npos;
}

// One byte longer than the words that are marked.
std::string random_text(std::mt19937& random, std::size_t words, std::string_view alphabet) {
  std::string text(words * KV_BLOCK_SIZE + 1, '\0');
  for (char& byte : text) {
    byte = alphabet.empty() ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
  }
  return text;
}

TEST(CsvMarks, EqualBytesAndNoOthersAreMarked) {
  std::mt19937 random{40};
  for (const kv_simd_level level : available_simd_levels()) {
    for (std::size_t words = 1; words <= KV_CSV_CHUNK_WORDS; ++words) {
      const std::string text = random_text(random, words, words % 2 == 0 ? ",\n\"x"sv : ""sv);
      for (const char value : "\n,;|\t\"'\\/\0\xff"sv) {
        kv_csv_marks marks;
        kv_csv_kernels_of(level).equal(text.data(), words, value, marks.data());
        for (std::size_t at = 0; at < words * KV_BLOCK_SIZE; ++at) {
          ASSERT_EQ(marked(marks, at), text[at] == value) << at;
        }
      }
    }
  }
}

TEST(CsvMarks, AnyByteThatHidesIsNoticedWhereverItStands) {
  for (const kv_simd_level level : available_simd_levels()) {
    for (int byte = 0; byte < 256; ++byte) {
      for (const std::size_t at : {0U, 15U, 16U, 31U, 32U, 63U, 64U, 100U, 127U}) {
        std::string text(2 * KV_BLOCK_SIZE, 'x');
        text[at] = static_cast<char>(byte);
        const bool hides = byte == '"' || byte == '\'' || byte == '\\';
        ASSERT_EQ(kv_csv_kernels_of(level).holds_hiding(text.data(), 2), hides) << byte;
      }
    }
  }
}

TEST(CsvMarks, DelimitersInFrontOfAFormulaAreMarkedAndNoOtherBytes) {
  std::mt19937 random{41};
  for (std::size_t round = 0; round < 200; ++round) {
    const std::size_t words = 1 + round % KV_CSV_CHUNK_WORDS;
    const std::string text =
        random_text(random, words, round % 2 == 0 ? ",;=+-@ \t\nx1\xe4"sv : ""sv);
    for (const char delimiter : ",;|\t"sv) {
      for (const kv_simd_level level : available_simd_levels()) {
        kv_csv_marks marks;
        kv_csv_kernels_of(level).formulas(text.data(), words, delimiter, marks.data());
        for (std::size_t at = 0; at < words * KV_BLOCK_SIZE; ++at) {
          const bool must = text[at] == delimiter && may_lead(text[at + 1]);
          ASSERT_TRUE(marked(marks, at) ? text[at] == delimiter : !must) << at;
        }
      }
    }
  }
}

TEST(CsvMarks, LettersBehindADelimiterAreNotWorthALook) {
  for (const kv_simd_level level : available_simd_levels()) {
    std::string text;
    while (text.size() < KV_BLOCK_SIZE + 1) {
      text += ",a,Z,0,8,\"";
    }
    kv_csv_marks marks;
    kv_csv_kernels_of(level).formulas(text.data(), 1, ',', marks.data());
    EXPECT_EQ(marks[0], 0U);
  }
}

TEST(CsvMarks, ChunksCoverTheTextInOrder) {
  for (std::size_t size = 0; size < 3 * KV_CSV_CHUNK_WORDS * KV_BLOCK_SIZE; size += 7) {
    std::mt19937 random{static_cast<std::uint32_t>(size)};
    const std::string text = random_text(random, size / KV_BLOCK_SIZE + 1, ""sv).substr(0, size);
    std::string seen;
    kv_csv_for_each_chunk(text, [&](const char* bytes, std::size_t words, std::size_t offset) {
      EXPECT_EQ(offset, seen.size());
      seen.append(bytes, words * KV_BLOCK_SIZE);
      return true;
    });
    ASSERT_GE(seen.size(), size);
    ASSERT_EQ(seen.substr(0, size), text);
    ASSERT_EQ(seen.find_first_not_of('\0', size), std::string::npos);
  }
}

TEST(CsvMarks, NoChunkFollowsTheOneThatEndedTheWalk) {
  const std::string text(5 * KV_CSV_CHUNK_WORDS * KV_BLOCK_SIZE, 'x');
  int chunks = 0;
  kv_csv_for_each_chunk(text, [&](const char*, std::size_t, std::size_t) { return ++chunks < 2; });
  EXPECT_EQ(chunks, 2);
}

}  // namespace
