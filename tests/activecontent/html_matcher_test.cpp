#include <gtest/gtest.h>

#include <random>
#include <string>

#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_matcher.h"
#include "support/markup_product.h"

namespace {

constexpr std::size_t kOffsets[] = {0, 1, 15, 29, 31, 32, 61, 62, 63, 64, 95, 96, 127};

using markup_literals::kAll;
using markup_literals::kNone;

// The longest literal that the text begins with, by trying them all.
markup_literals::id s_plain(std::string_view text) {
  markup_literals::id best = kNone;
  for (std::size_t i = 0; i < kAll.size(); ++i) {
    const std::string_view literal = kAll[i].text();
    if (text.size() >= literal.size() && kv_equal_folded(text.substr(0, literal.size()), literal) &&
        (best == kNone || literal.size() > kAll[best].length)) {
      best = static_cast<markup_literals::id>(i);
    }
  }
  return best;
}

using found = std::vector<std::pair<std::size_t, int>>;

found s_plain_hits(std::string_view text) {
  found hits;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (const auto number = s_plain(text.substr(i)); number != kNone) {
      hits.emplace_back(i, number);
    }
  }
  return hits;
}

found s_hits(std::string_view text, kv_simd_level level, std::size_t from = 0) {
  found hits;
  kv_literal_matcher matcher(text, level, from);
  for (kv_literal_hit hit; matcher.next(hit);) {
    hits.emplace_back(hit.position(), hit.number());
  }
  return hits;
}

}  // namespace

TEST(HtmlMatcher, KnowsEachLiteralOnce) {
  EXPECT_EQ(kAll.size(), 121U);
  EXPECT_EQ(markup_literals::kHandlerCount, 111U);
  for (std::size_t i = 0; i < kAll.size(); ++i) {
    EXPECT_EQ(s_plain(kAll[i].text()), i) << kAll[i].text();
  }
}

namespace {

void s_expect_found(std::string_view text) {
  const found expected = s_plain_hits(text);
  for (const kv_simd_level level : available_simd_levels()) {
    ASSERT_EQ(s_hits(text, level), expected) << text;
  }
}

}  // namespace

TEST(HtmlMatcher, FindsEachLiteralAcrossTheBlocks) {
  for (const auto& literal : kAll) {
    for (const std::size_t offset : kOffsets) {
      std::string text = std::string(offset, '\xff') + std::string(literal.text());
      s_expect_found(text);
      text.pop_back();  // cut short
      s_expect_found(text);
      s_expect_found(text + '\x80');
    }
  }
}

TEST(HtmlMatcher, FindsThemInAnyCase) {
  for (const kv_simd_level level : available_simd_levels()) {
    EXPECT_EQ(s_hits("ONFocusIN XSL ?PHP Data: .AddEventListener( EV:Event", level),
              s_plain_hits("onfocusin xsl ?php data: .addeventlistener( ev:event"));
    // Bytes that differ from a literal's by the case bit alone are not it.
    EXPECT_TRUE(s_hits("\x1fphp data\x1a pointer\x0d"
                       "events ev\x1a"
                       "event",
                       level)
                    .empty());
  }
}

TEST(HtmlMatcher, AgreesOnRandomTexts) {
  std::mt19937 random(11);
  constexpr std::string_view kLetters = "oOnNfFcCuUsSiIxXlLdDaAtT:erp?h-v";
  for (int round = 0; round < 100; ++round) {
    std::string text(random() % 400, ' ');
    for (char& c : text) {
      c = kLetters[random() % kLetters.size()];
    }
    if (round % 3 == 0) {
      text.insert(random() % (text.size() + 1), kAll[random() % kAll.size()].text());
    }
    s_expect_found(text);
  }
}

TEST(HtmlMatcher, BeginsWhereItIsTold) {
  const std::string text = "script xsl script";
  for (const kv_simd_level level : available_simd_levels()) {
    EXPECT_EQ(s_hits(text, level, 1).size(), 2U);
    EXPECT_EQ(s_hits(text, level, 11).size(), 1U);
    EXPECT_EQ(s_hits(text, level, text.size()).size(), 0U);
  }
}

TEST(HtmlKernels, GiveTheSameBitsAtEveryLevel) {
  std::mt19937 random(5);
  constexpr std::size_t kWords = 32;
  std::string text(kWords * 64 + KV_KERNEL_MARGIN, ' ');
  for (char& c : text) {
    const char any = static_cast<char>(random() % 256);
    c = random() % 3 == 0 ? any : "<>\"!\r\n\0onscript"[random() % 15];
  }
  struct bits {
    std::array<std::uint64_t, kWords> candidates{};
    std::array<std::uint64_t, kWords> less_than{};
    std::array<std::uint64_t, kWords> events{};
    bool operator==(const bits&) const = default;
  };
  std::vector<bits> all;
  for (const kv_simd_level level : available_simd_levels()) {
    bits found_bits;
    const kv_markup_kernels& kernels = kv_kernels_of(level);
    kernels.candidates(text.data(), kWords, found_bits.candidates.data());
    kernels.structure(text.data(), kWords, found_bits.less_than.data(), found_bits.events.data());
    all.push_back(found_bits);
    EXPECT_EQ(all.back(), all.front());
  }
  for (std::size_t i = 0; i < kWords * 64; ++i) {
    const bool event = text[i] != '<' &&
                       std::string_view("<>\"!\r\n\0", 7).find(text[i]) != std::string_view::npos;
    ASSERT_EQ((all[0].events[i / 64] >> (i % 64) & 1) != 0, event) << i;
    ASSERT_EQ((all[0].less_than[i / 64] >> (i % 64) & 1) != 0, text[i] == '<') << i;
  }
}
