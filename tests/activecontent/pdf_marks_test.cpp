// Every version of the byte classifiers against plain loops over the bytes.
#include "activecontent/PDFscan_marks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <string_view>

#include "activecontent/kv_byte_blocks.h"
#include "support/simd_levels.h"

using namespace std::string_view_literals;

namespace {

// Two bytes longer than the blocks that are looked at.
std::string random_text(std::mt19937& random, std::size_t blocks, std::string_view alphabet) {
  std::string text(blocks * KV_BLOCK_SIZE + 2, '\0');
  for (char& byte : text) {
    byte = alphabet.empty() ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
  }
  return text;
}

TEST(PdfMarks, TheFirstBlockWithAnObjectIsFoundAndAllThatBeginInIt) {
  std::mt19937 random{50};
  for (std::size_t round = 0; round < 2000; ++round) {
    const std::size_t blocks = round % 6;
    std::string text = random_text(random, blocks, round % 2 == 0 ? "objx"sv : "ojb"sv);
    if (round % 3 == 0) {  // few hits, so that blocks without any lie in front
      std::ranges::replace(text, 'j', 'x');
      text.replace(random() % (text.size() - 1), 3, "obj");
    }
    std::size_t before = 0;
    std::uint64_t marks = 0;
    for (; before < blocks && marks == 0; before += marks == 0 ? 1 : 0) {
      for (std::size_t i = 0; i < KV_BLOCK_SIZE; ++i) {
        const bool hit = text.compare(before * KV_BLOCK_SIZE + i, 3, "obj") == 0;
        marks |= std::uint64_t{hit} << i;
      }
    }
    for (const kv_simd_level level : available_simd_levels()) {
      const kv_pdf_object_marks found = kv_pdf_kernels_of(level).objects(text.data(), blocks);
      ASSERT_EQ(found.blocks_before, before) << text;
      ASSERT_EQ(found.marks, marks) << text;
    }
  }
}

TEST(PdfMarks, EveryWordIsMarkedWhereverItBegins) {
  constexpr std::array kWords{
      "/AcroForm"sv, "/aa"sv, "<?php"sv, "perl"sv, "x"sv, "#"sv, std::string_view("\0", 1)};
  kv_pdf_keys keys;
  for (std::size_t i = 0; i < kWords.size(); ++i) {
    keys.admit(kWords[i], i);
  }
  for (const std::string_view word : kWords) {
    for (std::size_t at = 0; at < KV_BLOCK_SIZE; ++at) {
      for (const bool upper : {false, true}) {
        std::string text(KV_BLOCK_SIZE, '-');
        text.replace(at, word.size(), word);
        text.resize(KV_BLOCK_SIZE + 2, '\xff');
        if (upper) {
          std::ranges::transform(text, text.begin(), kv_pdf_upper);
        }
        for (const kv_simd_level level : available_simd_levels()) {
          const std::uint64_t marks = kv_pdf_kernels_of(level).words(keys, text.data());
          ASSERT_NE(marks >> at & 1, 0U) << word << " at " << at;
        }
      }
    }
  }
}

TEST(PdfMarks, AllVersionsMarkTheSameBytes) {
  std::mt19937 random{51};
  kv_pdf_keys keys;
  keys.admit("/js", 0);
  keys.admit("<?php", 1);
  keys.admit("per", 7);
  for (std::size_t round = 0; round < 2000; ++round) {
    const std::string text = random_text(random, 1, round % 2 == 0 ? "/jJsS<?pERr#"sv : ""sv);
    const std::uint64_t expected =
        kv_pdf_kernels_of(kv_simd_level::scalar).words(keys, text.data());
    for (const kv_simd_level level : available_simd_levels()) {
      ASSERT_EQ(kv_pdf_kernels_of(level).words(keys, text.data()), expected);
    }
  }
}

TEST(PdfMarks, OtherTextIsNotMarked) {
  kv_pdf_keys keys;
  keys.admit("/JavaScript", 0);
  keys.admit("perl", 1);
  std::string text = "<</Type/Page/Parent 2 0 R/MediaBox[0 0 612 792]/Contents 4 0 R>>";
  text.resize(KV_BLOCK_SIZE + 2, ' ');
  for (const kv_simd_level level : available_simd_levels()) {
    EXPECT_EQ(kv_pdf_kernels_of(level).words(keys, text.data()), 0U);
  }
}

}  // namespace
