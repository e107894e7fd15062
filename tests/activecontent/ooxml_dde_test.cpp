#include <gtest/gtest.h>

#include <random>

#include "activecontent/kvactivecontent_dde.h"
#include "support/trace_capture.h"

namespace {

// The expression over the whole text, as it would run without the search in front.
bool s_regex(kv_dde_pattern pattern, const std::string& text) {
  const kv_dde_rule& rule = kv_dde_rule_of(pattern);
  return s_match_regex(rule.pattern, rule.name, text.data(), text.size()) == 1;
}

struct dde_case {
  const char* text;
  bool simple, link, automatic;
};
class DdeText : public testing::TestWithParam<dde_case> {};
TEST_P(DdeText, IsJudgedAsTheExpressionsDo) {
  const dde_case& c = GetParam();
  const std::string text = c.text;
  EXPECT_EQ(kv_dde_find(text)[KV_DDE_SIMPLE].has_value(), c.simple);
  EXPECT_EQ(kv_dde_find(text)[KV_DDE_LINK].has_value(), c.link);
  EXPECT_EQ(kv_dde_find(text)[KV_DDE_AUTO].has_value(), c.automatic);
  EXPECT_EQ(s_regex(KV_DDE_SIMPLE, text), c.simple);
  EXPECT_EQ(s_regex(KV_DDE_LINK, text), c.link);
  EXPECT_EQ(s_regex(KV_DDE_AUTO, text), c.automatic);
  EXPECT_EQ(kv_dde_check(text), c.simple || c.link || c.automatic ? 1 : 0);
}
INSTANTIATE_TEST_SUITE_P(
    Texts, DdeText,
    testing::Values(
        dde_case{"", false, false, false}, dde_case{"d", false, false, false},
        dde_case{"dde", false, false, false}, dde_case{"a dde b", true, false, false},
        dde_case{"a dDe\tb", true, false, false}, dde_case{"a DDEX b", false, false, false},
        dde_case{"dde b", false, false, false},   // no word ends before it
        dde_case{"a dde ", false, false, false},  // none begins behind it
        dde_case{"a dde .,b", true, false, false},
        dde_case{"a <dde b", false, false, false},  // "<" stands between
        dde_case{"a< b dde c", true, false, false}, dde_case{"a dde >b", false, false, false},
        dde_case{"a dde b>", true, false, false}, dde_case{"abdde x", false, false, false},
        dde_case{"a.bdde x", true, false, false}, dde_case{"_ DDEAUTO _", false, false, true},
        dde_case{"<w:t>DDEAUTO c:\\x.exe</w:t>", false, false, true},
        dde_case{"<w:t> DDEAUTO c:\\x.exe</w:t>", false, false, true},
        dde_case{"a ddeautox b", false, false, false},
        dde_case{"a dde ddeauto b", true, false, true},
        dde_case{"<ddeLink ole=\"1\">", false, true, false},
        dde_case{"ddeLink a", false, true, false}, dde_case{"xddeLink a", false, false, false},
        dde_case{"<ddelink a", false, false, false}, dde_case{"<ddeLink>a", false, false, false},
        dde_case{"<ddeLink \n>>", false, false, false},
        dde_case{"<ddeLink \n><><x", false, true, false}, dde_case{"a dde\vb", true, false, false},
        dde_case{"a dde\xA0"
                 "b",
                 false, false, false},
        dde_case{"\xE9 dde x", false, false, false}));  // no word outside ASCII

std::string s_random_text(std::mt19937& random) {
  static const std::vector<std::string> kParts{"dde",
                                               "DDE",
                                               "ddeauto",
                                               "DdeAuto",
                                               "ddeLink",
                                               "ddelink",
                                               " ",
                                               "\t",
                                               "\n",
                                               "\v",
                                               "<",
                                               ">",
                                               "a",
                                               "_",
                                               "0",
                                               ".",
                                               "\"",
                                               "d",
                                               "e",
                                               std::string(1, '\0'),
                                               "\xE9",
                                               "auto",
                                               "Link",
                                               std::string(17, 'x'),
                                               std::string(20, ' '),
                                               std::string(33, '-')};
  std::string text;
  const std::size_t parts = random() % 14;
  for (std::size_t i = 0; i < parts; ++i) {
    text += kParts[random() % kParts.size()];
  }
  return text;
}

TEST(Dde, TheSearchAgreesWithTheExpressionsOnAnyText) {
  std::mt19937 random{20231};
  int matches = 0;
  for (int round = 0; round < 6000; ++round) {
    const std::string text = s_random_text(random);
    for (const kv_dde_pattern pattern : {KV_DDE_SIMPLE, KV_DDE_LINK, KV_DDE_AUTO}) {
      const auto stretch = kv_dde_find(text)[pattern];
      ASSERT_EQ(stretch.has_value(), s_regex(pattern, text)) << testing::PrintToString(text);
      if (stretch) {
        ++matches;
        ASSERT_TRUE(s_regex(pattern, std::string{*stretch})) << testing::PrintToString(text);
      }
    }
  }
  EXPECT_GT(matches, 200);
}

TEST(Dde, EveryPlaceOfAFieldIsFound) {
  for (std::size_t before = 0; before < 70; ++before) {
    const std::string text = "a" + std::string(before, ' ') + " ddeAUTO x";
    EXPECT_TRUE(kv_dde_find(text)[KV_DDE_AUTO].has_value()) << before;
    EXPECT_FALSE(kv_dde_find(text.substr(0, text.size() - 1))[KV_DDE_AUTO].has_value()) << before;
  }
}

TEST(Dde, AFailureHidesThePatternsBehindIt) {
  EXPECT_EQ(kv_dde_outcome(0, 0, 0), 0);
  EXPECT_EQ(kv_dde_outcome(0, 0, 1), 1);
  EXPECT_EQ(kv_dde_outcome(0, 1, -1), 1);
  EXPECT_EQ(kv_dde_outcome(1, -1, -1), 1);
  EXPECT_EQ(kv_dde_outcome(-1, 1, 1), -1);
  EXPECT_EQ(kv_dde_outcome(0, -1, 1), -1);
}

TEST(MatchRegex, TellsMatchNoMatchAndFailureApart) {
  const trace_capture trace;
  EXPECT_EQ(s_match_regex("b+", "letters", "abc", 3), 1);
  EXPECT_EQ(s_match_regex("b+", "letters", "abc", 1), 0);  // the length counts, not a zero
  EXPECT_EQ(s_match_regex("a(", "broken", "abc", 3), -1);
  EXPECT_EQ(trace.count("match found for letters"), 1);
  EXPECT_EQ(trace.count("no match"), 1);
  EXPECT_EQ(trace.count("ERROR", "Error compiling regex broken"), 1);
}

TEST(MatchRegex, NothingLongerThanTheMatcherCountsReachesIt) {
  const trace_capture trace;
  EXPECT_EQ(s_match_regex("b", "long", "", std::size_t{1} << 31), -1);
  EXPECT_EQ(trace.count("ERROR", "Error 12 matching regex long"), 1);
}

TEST(MatchRegex, ZerosAreOrdinaryBytes) {
  const std::string text{"a\0b", 3};
  EXPECT_EQ(s_match_regex("b", "b", text.data(), text.size()), 1);
}

}  // namespace
