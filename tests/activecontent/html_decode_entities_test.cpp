#include <gtest/gtest.h>

#include <string>

#include "activecontent/kvactivecontent_html_decode_entities.h"
#include "activecontent/kvactivecontent_html_named_entities.h"
#include "activecontent/kvactivecontent_markup.h"
#include "support/trace_capture.h"

using namespace std::string_literals;

namespace {

std::string s_decode(const std::string& text) {
  std::string output(text.size(), 'x');
  output.resize(kv_decode_references(text, output.data()));
  return output;
}

struct decode_case {
  std::string text;
  std::string expected;
};

class HtmlDecode : public testing::TestWithParam<decode_case> {};

TEST_P(HtmlDecode, GivesTheText) {
  EXPECT_EQ(s_decode(GetParam().text), GetParam().expected);
  EXPECT_EQ(kv_find_reference(GetParam().text) == std::string::npos,
            GetParam().text == GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, HtmlDecode,
    testing::Values(decode_case{"&#60;", "<"}, decode_case{"&#x3c;", "<"},
                    decode_case{"&#X3C;", "<"}, decode_case{"&#000000000000000060;", "<"},
                    decode_case{"a&#60;b&#62;c", "a<b>c"}, decode_case{"&#127;", "\x7f"},
                    decode_case{"&#128;", "\xc2\x80"}, decode_case{"&#x7ff;", "\xdf\xbf"},
                    decode_case{"&#x800;", "\xe0\xa0\x80"}, decode_case{"&#xffff;", "\xef\xbf\xbf"},
                    decode_case{"&#x10000;", "\xf0\x90\x80\x80"},
                    decode_case{"&#x10ffff;", "\xf4\x8f\xbf\xbf"},
                    decode_case{"&#xd800;", "\xed\xa0\x80"}, decode_case{"&#0;b", "\0b"s}));

INSTANTIATE_TEST_SUITE_P(
    StaysAsItIs, HtmlDecode,
    testing::Values(decode_case{"", ""}, decode_case{"&", "&"}, decode_case{"&;", "&;"},
                    decode_case{"&#;", "&#;"}, decode_case{"&#x;", "&#x;"},
                    decode_case{"&#x110000;", "&#x110000;"},
                    decode_case{"&#1114112;", "&#1114112;"},
                    decode_case{"&#99999999999999999999999;", "&#99999999999999999999999;"},
                    decode_case{"&#4294967356;", "&#4294967356;"}, decode_case{"&#60", "&#60"},
                    decode_case{"&#60 ;", "&#60 ;"}, decode_case{"&# 60;", "&# 60;"},
                    decode_case{"&#+60;", "&#+60;"}, decode_case{"&#-60;", "&#-60;"},
                    decode_case{"&#6a;", "&#6a;"}, decode_case{"&#xg;", "&#xg;"},
                    decode_case{"&lt", "&lt"}, decode_case{"&LT;", "&LT;"},
                    decode_case{"&nosuchname;", "&nosuchname;"},
                    decode_case{"&averyveryverylongname;", "&averyveryverylongname;"}));

INSTANTIATE_TEST_SUITE_P(GoesOn, HtmlDecode,
                         testing::Values(decode_case{"&&lt;", "&<"}, decode_case{"&am&lt;", "&am<"},
                                         decode_case{"&#6&#60;", "&#6<"},
                                         decode_case{"&lt;&gt;", "<>"},
                                         // One pass: what comes out is not read again.
                                         decode_case{"&amp;lt;", "&lt;"},
                                         decode_case{"&#38;#60;", "&#60;"}));

INSTANTIATE_TEST_SUITE_P(
    Names, HtmlDecode,
    testing::Values(decode_case{"&apos;", "'"}, decode_case{"&Tab;", "\t"},
                    decode_case{"&NewLine;", "\n"}, decode_case{"&colon;", ":"},
                    decode_case{"&quot;", "\""}, decode_case{"&nbsp;", "\xc2\xa0"},
                    decode_case{"&euro;", "\xe2\x82\xac"}, decode_case{"&sup1;", "\xc2\xb9"},
                    decode_case{"&sup;", "\xe2\x8a\x83"}, decode_case{"&thetasym;", "\xcf\x91"}));

}  // namespace

TEST(HtmlNamedEntities, AreAllFound) {
  ASSERT_EQ(NAMED_ENTITIES.size(), 256U);
  for (const kv_named_entity& entity : NAMED_ENTITIES) {
    EXPECT_EQ(s_decode("&" + std::string(entity.name)), entity.text) << entity.name;
    EXPECT_TRUE(entity.name.ends_with(';'));
  }
}

TEST(HtmlDecodeSurface, DecodesInPlaceWithoutOutput) {
  std::string text = "a&lt;b&#0;c";
  EXPECT_EQ(kvactivecontent_decode_html_entities_utf8(text.data(), nullptr), 5U);
  EXPECT_EQ(text.substr(0, 6), "a<b\0c\0"s);
}

TEST(HtmlDecodeSurface, DecodesIntoAnOutput) {
  std::string text = "&gt;&gt;";
  std::string output(text.size(), 'x');
  EXPECT_EQ(kvactivecontent_decode_html_entities_utf8(text.data(), output.data()), 2U);
  EXPECT_STREQ(output.c_str(), ">>");
  EXPECT_EQ(text, "&gt;&gt;");
}

TEST(HtmlRemoveNullChars, RemovesAndLogsEach) {
  const trace_capture trace;
  std::string text = "\0a\0\0b\0"s;
  EXPECT_EQ(kv_activecontent_removeNullChars(text.data(), text.size()), 2U);
  EXPECT_EQ(text.substr(0, 2), "ab");
  EXPECT_EQ(trace.count("WARN", "Found encoded zero char (IE obfuscation attack)"), 4);
}

TEST(HtmlRemoveNullChars, StaysWithinTheLength) {
  std::string text = "a\0b\0"s;
  EXPECT_EQ(kv_activecontent_removeNullChars(text.data(), 3), 2U);
  EXPECT_EQ(text.substr(0, 2), "ab");
  EXPECT_EQ(text[3], '\0');
  EXPECT_EQ(kv_activecontent_removeNullChars(text.data(), 0), 0U);
}
