#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "activecontent/kvactivecontent_html_xml_svg_eventhandlers.h"
#include "activecontent/kvactivecontent_markup.h"
#include "support/trace_capture.h"

namespace {

struct handler_case {
  const char* tag;
  const char* name;  // null: none
};

class HtmlEventHandler : public testing::TestWithParam<handler_case> {};

TEST_P(HtmlEventHandler, IsJudgedByItsFirstOccurrence) {
  std::array<char, KV_REASON_SIZE> reason{};
  const std::int32_t code = kvactivecontent_IsHTMLEventHandler(GetParam().tag, reason.data());
  if (GetParam().name == nullptr) {
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(reason.data(), "");
    return;
  }
  EXPECT_EQ(code, -202);
  EXPECT_EQ(std::string(reason.data()),
            "\"Inline event handler '" + std::string(GetParam().name) + "'\" detected in markup");
}

INSTANTIATE_TEST_SUITE_P(
    Tags, HtmlEventHandler,
    testing::Values(handler_case{"", nullptr}, handler_case{"<a", nullptr},
                    handler_case{"<a onclick=x", "onclick"},
                    handler_case{"<svg/onload=x", "onload"},
                    handler_case{"<a ONCLICK=x", "onclick"}, handler_case{"onload", "onload"},
                    handler_case{"<a onload", "onload"}, handler_case{"<a data-onload=x", nullptr},
                    handler_case{"<a onloadx=y", nullptr}, handler_case{"<a 'onload'", "onload"},
                    handler_case{"<a \"onload\"", "onload"}, handler_case{"<a =onload=", "onload"},
                    handler_case{"<a onload:", "onload"}, handler_case{"<a :onload=", nullptr},
                    handler_case{"<a onload(", nullptr}, handler_case{"<onload=", nullptr},
                    // Only the first occurrence of each name is tested.
                    handler_case{"<a data-onload=x onload=y", nullptr},
                    handler_case{"<a data-onload=x onclick=y", "onclick"},
                    // The first of a longer name is the first of its beginning.
                    handler_case{"<a onfocusin=x onfocus=y", "onfocusin"},
                    handler_case{"<a onfocusinx onfocus=y", nullptr},
                    // In table order, not in the tag's.
                    handler_case{"<a onload=x onclick=y", "onclick"},
                    handler_case{"<a ev:DEFAULTACTION=x", "ev:defaultAction"},
                    handler_case{"<a pointer-events=x", "pointer-events"},
                    handler_case{"<a onanimationand=x", "onanimationand"}));

struct isolation_case {
  const char* text;
  std::size_t position;
  std::size_t length;
  bool expected;
};

class HtmlIsolation : public testing::TestWithParam<isolation_case> {};

TEST_P(HtmlIsolation, LooksAtBothSides) {
  const isolation_case& test = GetParam();
  EXPECT_EQ(kv_isIsolated(test.text, test.position, test.length), test.expected) << test.text;
}

INSTANTIATE_TEST_SUITE_P(
    Words, HtmlIsolation,
    testing::Values(isolation_case{"x", 0, 1, true}, isolation_case{" x ", 1, 1, true},
                    isolation_case{"\tx\n", 1, 1, true}, isolation_case{"\fx\r", 1, 1, true},
                    isolation_case{"/x/", 1, 1, true}, isolation_case{"\"x'", 1, 1, true},
                    isolation_case{"'x\"", 1, 1, true}, isolation_case{"=x=", 1, 1, true},
                    isolation_case{" x:", 1, 1, true}, isolation_case{":x ", 1, 1, false},
                    isolation_case{"-x ", 1, 1, false}, isolation_case{" x-", 1, 1, false},
                    isolation_case{" x>", 1, 1, false}, isolation_case{"<x ", 1, 1, false},
                    isolation_case{"ax", 1, 1, false}, isolation_case{"xa", 0, 1, false}));

}  // namespace

TEST(HtmlWhiteSpace, CountsTheSlash) {
  std::string found;
  for (int c = 0; c < 256; ++c) {
    if (kv_IsHTMLWhiteSpace(static_cast<char>(c))) {
      found += static_cast<char>(c);
    }
  }
  EXPECT_EQ(found, "\t\n\f\r /");
}

TEST(HtmlEventHandlers, AreAllFoundInAnyCase) {
  std::set<std::string_view> names;
  for (std::size_t i = 0; i + 1 < HTMLEventHandlers.size(); ++i) {
    const std::string name(HTMLEventHandlers[i]);
    names.insert(HTMLEventHandlers[i]);
    std::string upper = name;
    for (char& c : upper) {
      c = static_cast<char>(std::toupper(c));
    }
    std::array<char, KV_REASON_SIZE> reason{};
    EXPECT_EQ(kvactivecontent_IsHTMLEventHandler(("<a " + upper + "=").c_str(), reason.data()),
              -202)
        << name;
    EXPECT_NE(std::string(reason.data()).find("'" + name + "'"), std::string::npos) << name;
    EXPECT_EQ(kvactivecontent_includesEventHandlers(upper.data(), upper.size()), 1) << name;
  }
  EXPECT_EQ(HTMLEventHandlers.size(), 116U);
  EXPECT_EQ(names.size(), 111U);
}

TEST(HtmlIncludesEventHandlers, FindsThemAnywhere) {
  const auto includes = [](std::string_view text) {
    return kvactivecontent_includesEventHandlers(text.data(), text.size());
  };
  EXPECT_EQ(includes(""), 0);
  EXPECT_EQ(includes("onloa"), 0);
  EXPECT_EQ(includes("xxonloadxx"), 1);
  EXPECT_EQ(includes(std::string_view("a\0onLoad", 8)), 1);
  EXPECT_EQ(includes(std::string(5000, 'o') + "nclick"), 1);
}

TEST(HtmlEventHandlers, LogNameAndTagWhenFound) {
  const trace_capture trace;
  std::array<char, KV_REASON_SIZE> reason{};
  EXPECT_EQ(kvactivecontent_IsHTMLEventHandler("<a onclick=b", reason.data()), -202);
  EXPECT_EQ(trace.count("WARN", "Found HTML Event handler onclick in tag <<a onclick=b>"), 1);
  EXPECT_EQ(trace.count("WARN", "\"Inline event handler 'onclick'\" detected in markup"), 1);
}
