#include "common/kvhlp-string.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "common/kv_guard.h"
#include "support/trace_capture.h"

namespace {

std::string trimmed(std::string text) {
  kvhlp_TrimWhitespace(text.data());
  return text.c_str();
}

TEST(TrimWhitespace, RemovesBothEndsButNeverTheLastCharacter) {
  struct {
    const char* text;
    const char* trimmed;
  } const rows[] = {{"", ""},
                    {"a", "a"},
                    {" a ", "a"},
                    {"\t\n\v\f\r a b \r\n", "a b"},
                    {" ", " "},
                    {" \t\n", "\n"},
                    {"a  ", "a"},
                    {"  a", "a"},
                    {"\xa0 a", "\xa0 a"}};
  for (const auto& row : rows) {
    EXPECT_EQ(trimmed(row.text), row.trimmed) << row.text;
  }
  EXPECT_EQ(kvhlp_TrimWhitespace(nullptr), nullptr);
}

TEST(TrimWhitespace, LongRunsTakeLinearTime) {
  EXPECT_EQ(trimmed(std::string(4000000, ' ') + "x"), "x");
}

TEST(StringEndsWith, ComparesBytes) {
  EXPECT_EQ(kvhlp_StringEndsWith("report.pdf", ".pdf"), 1);
  EXPECT_EQ(kvhlp_StringEndsWith("report.pdf", ".PDF"), 0);
  EXPECT_EQ(kvhlp_StringEndsWith("df", ".pdf"), 0);
  EXPECT_EQ(kvhlp_StringEndsWith("x", ""), 1);
  EXPECT_EQ(kvhlp_StringEndsWith(nullptr, "x"), 0);
  EXPECT_EQ(kvhlp_StringEndsWith("x", nullptr), 0);
}

TEST(StringIsNumber, OnlyLettersDisqualify) {
  EXPECT_EQ(kvhlp_StringIsNumber("12 34"), 1);
  EXPECT_EQ(kvhlp_StringIsNumber("12a"), 0);
  EXPECT_EQ(kvhlp_StringIsNumber("-1.5,%\xe4"), 1);
  EXPECT_EQ(kvhlp_StringIsNumber(""), 1);
  EXPECT_EQ(kvhlp_StringIsNumber("Z"), 0);
  const trace_capture trace;
  EXPECT_EQ(kvhlp_StringIsNumber(nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "Got NULL pointer"), 1);
}

TEST(GetQuotedText, CopiesUpToTheQuoteThatIsNotEscaped) {
  struct {
    std::string_view text;
    std::size_t result;
    const char* quoted;
    std::size_t end;
  } const rows[] = {{R"(a "b" c)", 2, "b", 5},
                    {R"("")", 1, "", 2},
                    {R"("a\"b")", 5, R"(a\"b)", 6},
                    {R"(no quotes)", 0, "?", 9},
                    {R"("open)", 0, "?", 5},
                    {R"("open\")", 0, "?", 7},
                    {"", 0, "?", 0}};
  for (const auto& row : rows) {
    char out[32] = "?";
    const char* end = nullptr;
    EXPECT_EQ(kvhlp_GetQuotedText(row.text.data(), row.text.size(), out, &end), row.result)
        << row.text;
    EXPECT_STREQ(out, row.quoted) << row.text;
    EXPECT_EQ(end, row.text.data() + row.end) << row.text;
  }
}

TEST(GetQuotedText, LogsAnOpeningQuoteWithoutAClosingOne) {
  const trace_capture trace;
  char out[8];
  const char* end = nullptr;
  EXPECT_EQ(kvhlp_GetQuotedText("none", 4, out, &end), 0U);
  EXPECT_EQ(trace.count("no quoted content found"), 0);
  EXPECT_EQ(kvhlp_GetQuotedText("\"x", 2, out, &end), 0U);
  EXPECT_EQ(trace.count("DEBUG", "no quoted content found"), 1);
  EXPECT_EQ(kvhlp_GetQuotedText(nullptr, 0, out, &end), 0U);
}

// Where the match ends, or -1.
long found_at(std::string_view buffer, std::string_view pattern, std::size_t gap) {
  const auto* const start = reinterpret_cast<const std::uint8_t*>(buffer.data());
  const auto* const end = kvhlp_FindBinaryPattern(
      start, buffer.size(), reinterpret_cast<const std::uint8_t*>(pattern.data()), pattern.size(),
      gap);
  return end == nullptr ? -1 : end - start;
}

TEST(FindBinaryPattern, FindsBytesWithTheirGap) {
  using namespace std::string_view_literals;
  EXPECT_EQ(found_at("xxabcx", "abc", 0), 5);
  EXPECT_EQ(found_at("abc", "abc", 0), 3);
  EXPECT_EQ(found_at("ab", "abc", 0), -1);
  EXPECT_EQ(found_at("aabab", "ab", 0), 3);
  EXPECT_EQ(found_at("", "a", 0), -1);
  EXPECT_EQ(found_at("a", "", 0), -1);
  EXPECT_EQ(found_at("x\0M\0Z\0y"sv, "MZ", 1), 5);
  EXPECT_EQ(found_at("M\0Z"sv, "MZ", 1), 3) << "nothing needs to follow the last byte";
  EXPECT_EQ(found_at("M\0"sv, "MZ", 1), -1);
  EXPECT_EQ(found_at("M--Z", "MZ", 2), 4);
  EXPECT_EQ(found_at("MZ", "MZ", SIZE_MAX), -1);
  EXPECT_EQ(kvhlp_FindBinaryPattern(nullptr, 1, nullptr, 1, 0), nullptr);
}

TEST(FindBinaryPattern, LogsAMatch) {
  const trace_capture trace;
  EXPECT_EQ(found_at("abc", "b", 0), 2);
  EXPECT_EQ(trace.count("DEBUG", "_FindBinaryPattern(): Got Pattern Match"), 1);
}

TEST(NormalizeString, LowersTrimsAndCuts) {
  const trace_capture trace;
  EXPECT_STREQ(kvhlp_normalize_string("  Some TEXT\n"), "some text");
  EXPECT_EQ(trace.count("TRACE", "Normalized string \"some text\""), 1);
  EXPECT_EQ(std::strlen(kvhlp_normalize_string(std::string(5000, 'A').c_str())), 1023U);
  EXPECT_STREQ(kvhlp_normalize_string(""), "");
  EXPECT_EQ(kvhlp_normalize_string(nullptr), nullptr);
}

TEST(Linebreaks, AreCutOrReplaced) {
  char cut[] = "a\nb\n";
  kvhlp_remove_linebreak(cut);
  EXPECT_STREQ(cut, "a");
  kvhlp_remove_linebreak(cut);
  EXPECT_STREQ(cut, "a");
  char replaced[] = "a\nb\n";
  kvhlp_replace_all_linebreaks(replaced, ' ');
  EXPECT_STREQ(replaced, "a b ");
  kvhlp_remove_linebreak(nullptr);
  kvhlp_replace_all_linebreaks(nullptr, ' ');
}

TEST(RandStr, WritesAlphabetAndTerminator) {
  char text[34];
  std::memset(text, '!', sizeof text);
  kvhlp_rand_str(text, 32);
  EXPECT_EQ(std::strlen(text), 32U);
  EXPECT_EQ(std::string_view(text).find_first_not_of(
                "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
            std::string_view::npos);
  EXPECT_EQ(text[33], '!');
  kvhlp_rand_str(text, 0);
  EXPECT_STREQ(text, "");
}

TEST(EscapeQuotes, ReplacesTheText) {
  char* text = strdup(R"(a "b" \c)");
  EXPECT_EQ(kvhlp_escape_quotes_inplace(&text), 0);
  EXPECT_STREQ(text, R"(a \"b\" \c)");
  const kv_text_ptr owner{text};
  char* nothing = nullptr;
  EXPECT_EQ(kvhlp_escape_quotes_inplace(&nothing), -1);
  EXPECT_EQ(kvhlp_escape_quotes_inplace(nullptr), -1);
}

TEST(WildcardTextMatch, PatternsRowByRow) {
  struct {
    const char* text;
    const char* pattern;
    int case_sensitive;
    char terminator;
    int match;
  } const rows[] = {
      {"Report.DOCX", "*.docx", 0, '\0', 1},
      {"Report.DOCX", "*.docx", 1, '\0', 0},
      {"", "", 1, '\0', 1},
      {"", "*", 1, '\0', 1},
      {"", "?", 1, '\0', 0},
      {"a", "", 1, '\0', 0},
      {"abc", "abc", 1, '\0', 1},
      {"abc", "ab", 1, '\0', 0},
      {"abc", "abcd", 1, '\0', 0},
      {"abc", "a?c", 1, '\0', 1},
      {"abc", "a*c", 1, '\0', 1},
      {"ac", "a*c", 1, '\0', 1},
      {"abc", "*", 1, '\0', 1},
      {"abc", "***", 1, '\0', 1},
      {"abc", "*?*?*?*", 1, '\0', 1},
      {"abc", "*?*?*?*?", 1, '\0', 0},
      {"abcabcabd", "*abd", 1, '\0', 1},
      {"aXbXc", "a*X*c", 1, '\0', 1},
      {"mississippi", "*iss*ip*", 1, '\0', 1},
      {"abc;rest", "abc", 1, ';', 1},
      {"abc", "abc;rest", 1, ';', 1},
      {"abc;x", "a*x", 1, ';', 0},
      {"\xc4", "\xe4", 0, '\0', 0},
      {"[", "{", 0, '\0', 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(kvhlp_WildcardTextMatch(row.text, row.pattern, row.case_sensitive, row.terminator),
              row.match)
        << row.text << " against " << row.pattern;
  }
}

TEST(WildcardTextMatch, NullsAreLoggedAndNoMatch) {
  const trace_capture trace;
  EXPECT_EQ(kvhlp_WildcardTextMatch(nullptr, "*", 1, '\0'), 0);
  EXPECT_EQ(kvhlp_WildcardTextMatch("a", nullptr, 1, '\0'), 0);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameter pTameText (NULL)"), 1);
  EXPECT_EQ(trace.count("ERROR", "Invalid parameter pWildText (NULL)"), 1);
}

TEST(WildcardTextMatch, StarsDoNotExplode) {
  const std::string text(20000, 'a');
  EXPECT_EQ(kvhlp_WildcardTextMatch(text.c_str(), "*a*a*a*a*a*a*a*a*a*a*a*a*a*ab", 1, '\0'), 0);
}

}  // namespace
