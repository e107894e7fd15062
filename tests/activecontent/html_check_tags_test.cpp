// The detector as a whole: quick checks, the walk over the tags, and what decides.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"
#include "support/markup_product.h"
#include "support/trace_capture.h"

using namespace std::string_literals;

namespace {

constexpr auto kClean = [](const markup_child&) { return 0; };
const markup_reference_job kScript{.html_script = true};
const markup_reference_job kBoth{.html_eventhandler = true, .html_script = true};

markup_outcome s_scan(const markup_reference_job& job, const std::string& text) {
  return markup_product_scan(job, text, kClean);
}

struct verdict_case {
  std::string text;
  std::string reason;  // empty: clean
};

constexpr std::size_t kOffsets[] = {0, 1, 40, 60, 61, 62, 63, 64, 4000, 4095};

class HtmlVerdict : public testing::TestWithParam<verdict_case> {};

// Every text at several places of the blocks in which texts are searched, at every level.
TEST_P(HtmlVerdict, HoldsAtEveryPlaceAndLevel) {
  for (const std::size_t offset : kOffsets) {
    for (const kv_simd_level level : available_simd_levels()) {
      const std::string text = std::string(offset, ' ') + GetParam().text;
      const markup_outcome out =
          markup_product_scan(kBoth, text, kClean, markup_environment_at(level));
      EXPECT_EQ(out.reason, GetParam().reason) << offset;
      EXPECT_EQ(out.code, GetParam().reason.empty() ? 0 : -202);
    }
  }
}

constexpr const char* kPattern = "Active Content \"javascript\" found in markup";
std::string s_tag(const std::string& word) {
  return "\"" + word + "-tag\" detected in markup";
}
std::string s_handler(const std::string& name) {
  return "\"Inline event handler '" + name + "'\" detected in markup";
}

INSTANTIATE_TEST_SUITE_P(
    BannedTags, HtmlVerdict,
    testing::Values(
        verdict_case{"<script>", s_tag("script")}, verdict_case{"</script>", s_tag("script")},
        verdict_case{"<SCRIPT src=x>", s_tag("script")}, verdict_case{"<object>", s_tag("object")},
        verdict_case{"<xsl:template>", s_tag("xsl")}, verdict_case{"<applet>", s_tag("applet")},
        verdict_case{"<embed>", s_tag("embed")}, verdict_case{"<?php echo ?>", s_tag("?php")},
        verdict_case{"<a href='javascript:x'>", s_tag("javascript")},
        verdict_case{"<a href=javascript:x>", s_tag("javascript")},
        verdict_case{"<a script>", s_tag("script")}, verdict_case{"<a/script/b>", s_tag("script")},
        verdict_case{"<scripty>", ""}, verdict_case{"<x-script>", ""},
        verdict_case{"<a description=b>", ""}, verdict_case{"script object", ""},
        verdict_case{"<a b=\"script\">", ""}, verdict_case{"<a b=\"x script y\">", ""},
        verdict_case{"<a b='x script y'>", s_tag("script")},
        verdict_case{"<a \"\" script>", s_tag("script")},
        // In the order of the list, not of the tag; and every occurrence of a word counts.
        verdict_case{"<object script>", s_tag("script")},
        verdict_case{"<xscript script>", s_tag("script")},
        verdict_case{"<a \"object\" xscript embed>", s_tag("embed")},
        // The backslash rule, and what an unclosed quote hides.
        verdict_case{"<a \\\" script>", s_tag("script")}, verdict_case{"<a \"\\\" script \">", ""},
        verdict_case{"<a \\\n\"x\" script>", ""},
        // Bytes that a tag drops.
        verdict_case{"<scr\nipt> script", s_tag("script")}, verdict_case{"<x\nscript>", ""},
        verdict_case{"<a \nscript\r>", s_tag("script")},
        verdict_case{"<s&#0;cript> script", s_tag("script")}, verdict_case{"<!-- <script> -->", ""},
        verdict_case{"<!--><script>", s_tag("script")}, verdict_case{"<script", ""}));

INSTANTIATE_TEST_SUITE_P(
    Invocations, HtmlVerdict,
    testing::Values(verdict_case{"<a href=\"javascript:x\">", kPattern},
                    verdict_case{"<a href=\" x javascript: y\">", kPattern},
                    verdict_case{"<a b=\"c\" d='javascript:' e=\"\">", kPattern},
                    verdict_case{"<a href=\"java\nscript:x\"> javascript", kPattern},
                    verdict_case{"<a href=\"java\nscript:x\">", ""},
                    verdict_case{"<a href=\"JavaScript:x\">", ""},
                    verdict_case{"<a href=\"javascript\">", ""},
                    verdict_case{"\"javascript:x\"", ""},
                    verdict_case{"<a javascript: \"x\">", s_tag("javascript")},
                    verdict_case{"<a \"x\" xjavascript:>", ""}));

INSTANTIATE_TEST_SUITE_P(
    Handlers, HtmlVerdict,
    testing::Values(
        verdict_case{"<svg/onload=x>", s_handler("onload")}, verdict_case{"<a data-onload=x>", ""},
        verdict_case{"<a onloadx=y>", ""}, verdict_case{"<a b=\"onclick\">", s_handler("onclick")},
        verdict_case{"<a b=\"x onclick=y\">", s_handler("onclick")}, verdict_case{"onclick=", ""},
        verdict_case{"<a on\nclick=x> onclick", s_handler("onclick")},
        // Before the banned words.
        verdict_case{"<script onclick=x>", s_handler("onclick")},
        verdict_case{"x.addEventListener(y)", "\"Event handler registration\" detected in markup"},
        verdict_case{"<script>.ADDEVENTLISTENER(",
                     "\"Event handler registration\" detected in markup"},
        verdict_case{"addEventListener(", ""}));

INSTANTIATE_TEST_SUITE_P(References, HtmlVerdict,
                         testing::Values(verdict_case{"&#x3c;script&#x3e;", s_tag("script")},
                                         verdict_case{"&lt;script&gt;", s_tag("script")},
                                         verdict_case{"<a href=&quot;javascript&colon;x&quot;>",
                                                      kPattern},
                                         verdict_case{"&#x110000;script>", ""},
                                         // A decoded zero byte ends nothing.
                                         verdict_case{"&#0;<script>", s_tag("script")},
                                         verdict_case{"\0<script>"s, ""}));

INSTANTIATE_TEST_SUITE_P(Exceptions, HtmlVerdict,
                         testing::Values(verdict_case{"<fontscript script>", ""},
                                         verdict_case{"<font script>", ""},
                                         verdict_case{"<FONT / Script>", ""},
                                         verdict_case{"<script b=\"font\tscript\">", ""},
                                         verdict_case{"<a b=\"fontscript javascript:\">", ""},
                                         verdict_case{"<a onclick=fontscript>", ""},
                                         verdict_case{"<font-script script>", s_tag("script")},
                                         verdict_case{"<font script><script>", s_tag("script")}));

struct switch_case {
  markup_reference_job job;
  std::string text;
  std::string reason;
};
class HtmlSwitches : public testing::TestWithParam<switch_case> {};

TEST_P(HtmlSwitches, SayWhatIsTested) {
  EXPECT_EQ(s_scan(GetParam().job, GetParam().text).reason, GetParam().reason);
}

const markup_reference_job kXmlJs{.xml_javascript = true, .mime_type = "image/svg+xml"};
const markup_reference_job kXmlXsl{.xml_xslt = true, .mime_type = "application/XHTML+XML"};
INSTANTIATE_TEST_SUITE_P(
    Slots, HtmlSwitches,
    testing::Values(switch_case{{}, "<script onclick=x>.addEventListener(", ""},
                    switch_case{kScript, "<a onclick=x>", ""},
                    switch_case{kScript, ".addEventListener( <script>", s_tag("script")},
                    switch_case{{.html_eventhandler = true}, "<script onclick=x>", ""},
                    switch_case{{.html_eventhandler = true},
                                "x.addEventListener(y",
                                "\"Event handler registration\" detected in markup"},
                    switch_case{kXmlJs, "<script>", s_tag("script")},
                    switch_case{kXmlJs, "<a href='javascript:x'>", s_tag("javascript")},
                    switch_case{kXmlJs, "<a href=\"javascript:x\">", kPattern},
                    switch_case{kXmlJs, "<xsl:x><object onclick=x><a srcdoc=y b='data:,z>", ""},
                    switch_case{kXmlXsl, "<xsl:x>", s_tag("xsl")},
                    switch_case{kXmlXsl, "<script><a href=\"javascript:x\">", ""},
                    switch_case{{.xml_javascript = true, .xml_xslt = true, .mime_type = "text/xml"},
                                "<xsl:x script>",
                                s_tag("script")},
                    switch_case{{.xml_javascript = true, .xml_xslt = true}, "<script><xsl:x>", ""},
                    switch_case{
                        {.html_eventhandler = true, .xml_javascript = true, .mime_type = "xml"},
                        "<script onclick=x>",
                        s_tag("script")},
                    switch_case{{.html_script = true, .xml_xslt = true, .mime_type = "xml"},
                                "<script xsl>",
                                s_tag("script")}));

// A scan with an environment of its own.
struct bare_scan {
  std::string text;
  kv_scanobject_ptr job;
  kv_markup_environment environment = kv_markup_default_environment();
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};

  explicit bare_scan(std::string bytes)
      : text(std::move(bytes)), job(make_markup_job(kBoth, text)) {}
  std::int32_t run(std::int64_t time_left_ms = KV_NO_TIME_LIMIT) {
    return kv_scan_markup(environment, job.get(), nullptr, reason.data(), error.data(), 0,
                          time_left_ms);
  }
};

}  // namespace

TEST(HtmlChildVerdict, IsNeverExcepted) {
  const markup_outcome out = markup_product_scan(
      kScript, "<fontscript srcdoc='x'>", [](const markup_child&) { return std::int32_t{-202}; });
  EXPECT_EQ(out.code, -202);
  EXPECT_EQ(out.error, "");
}

TEST(HtmlChildVerdict, EndsTheWalkWithAnyCode) {
  for (const std::int32_t code : {-1, -100, -101, -200, -1000}) {
    EXPECT_EQ(markup_product_scan(kScript, "<a b='data:,x'><script>",
                                  [code](const markup_child&) { return code; })
                  .code,
              code);
  }
}

TEST(HtmlException, LeavesItsText) {
  const markup_outcome out = s_scan(kScript, "<fontscript object>");
  EXPECT_EQ(out.code, 0);
  EXPECT_EQ(out.reason, "");
  EXPECT_EQ(out.error, "Found \"fontscript\" in a setting covered by an exception");
}

TEST(HtmlPattern, FailsEveryScanWhenItDoesNotCompile) {
  for (int scan = 0; scan < 2; ++scan) {
    bare_scan failing("<p>");
    failing.environment.pattern = kv_markup_pattern_new("(");
    ASSERT_EQ(failing.environment.pattern, nullptr);
    EXPECT_EQ(failing.run(), -1000);
    EXPECT_STREQ(failing.error.data(), "Error compiling regex");
  }
}

TEST(HtmlPattern, FailsTheScanWhenItCannotMatch) {
  bare_scan failing("<a href=\"javascript:x\">");
  failing.environment.match = [](const kv_markup_pattern*, const char*, std::size_t) {
    return kv_match_outcome::failed;
  };
  EXPECT_EQ(failing.run(), -1000);
  EXPECT_STREQ(failing.error.data(), "Error matching regex");
}

TEST(HtmlPattern, RunsOnlyWhereItsWordStands) {
  static int calls;
  calls = 0;
  bare_scan scan("<a b=\"javascript\"><c d=\"e\"><f javascript:><g \"javascript:\">");
  scan.environment.match = [](const kv_markup_pattern* pattern, const char* text,
                              std::size_t length) {
    ++calls;
    return kv_match_pattern(pattern, text, length);
  };
  EXPECT_EQ(scan.run(), -202);
  EXPECT_EQ(calls, 0);  // the third tag is found by its word alone
  bare_scan last("<a b=\"javascript\"><c d=\"e\"><g \"javascript:\">");
  last.environment.match = scan.environment.match;
  EXPECT_EQ(last.run(), -202);
  EXPECT_EQ(calls, 1);
}

TEST(HtmlTimeBudget, EndsTheWalkBeforeATag) {
  bare_scan scan("script");
  EXPECT_EQ(scan.run(0), -1000);
  EXPECT_STREQ(scan.error.data(), "Service side timeout");
  bare_scan without_marker("<p>");
  EXPECT_EQ(without_marker.run(0), 0);
}

TEST(HtmlTimeBudget, IsLookedAtWhileSteppingOver) {
  static std::int64_t now;
  now = 0;
  std::string text = "script";
  while (text.size() < 1'000'000) {
    text += "<p>";
  }
  bare_scan scan(text + "<script>");
  scan.environment.now_ms = [] { return now++; };
  EXPECT_EQ(scan.run(10), -1000);
  bare_scan patient(text + "<script>");
  patient.environment.now_ms = scan.environment.now_ms;
  EXPECT_EQ(patient.run(1000), -202);
}

TEST(HtmlMemory, FailsAtTheCopyOfTheText) {
  const trace_capture trace;
  bare_scan scan("&lt;");
  scan.environment.allocate = [](std::size_t) -> void* { return nullptr; };
  EXPECT_EQ(scan.run(), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to duplicate buffer"), 1);
}

TEST(HtmlMemory, FailsAtACollectedTag) {
  bare_scan scan("<scr\nipt> script");
  scan.environment.allocate = [](std::size_t) -> void* { return nullptr; };
  EXPECT_EQ(scan.run(), -1000);
  EXPECT_STREQ(scan.error.data(), "Error getting next HTML tag");
}

TEST(HtmlMemory, FailsAtTheCopyOfATag) {
  bare_scan scan("<script>");
  scan.environment.allocate = [](std::size_t) -> void* { return nullptr; };
  EXPECT_EQ(scan.run(), -1000);
  EXPECT_STREQ(scan.error.data(), "Failed to allocate _tag");
}

TEST(HtmlMemory, CopiesNothingThatNeedsNone) {
  bare_scan scan("<p>&nosuch; text <a description='x'>\0<script>"s);
  scan.environment.allocate = [](std::size_t) -> void* {
    ADD_FAILURE() << "allocated";
    return nullptr;
  };
  EXPECT_EQ(scan.run(), 0);
}

TEST(HtmlDetector, RefusesALengthWithoutBytes) {
  for (const bool on : {true, false}) {
    const kv_scanobject_ptr job = make_job("", {}, "text/html");
    job->ActiveContent->slots[KV_AC_HTML_SCRIPT] = on ? 1 : 0;
    job->data = nullptr;
    job->object_length = 5;
    std::array<char, KV_REASON_SIZE> reason{};
    std::array<char, KV_REASON_SIZE> error{};
    EXPECT_EQ(
        kvactivecontent_html(job.get(), nullptr, reason.data(), error.data(), 0, KV_NO_TIME_LIMIT),
        on ? -1000 : 0);
    EXPECT_STREQ(error.data(), on ? "Data length inconsistency" : "");
  }
}

TEST(HtmlDetector, TakesANegativeLengthAsNone) {
  const kv_scanobject_ptr job = make_job("<script>", {KV_AC_HTML_SCRIPT}, "text/html");
  job->object_length = -1;
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  EXPECT_EQ(
      kvactivecontent_html(job.get(), nullptr, reason.data(), error.data(), 0, KV_NO_TIME_LIMIT),
      0);
}

TEST(HtmlDetector, TakesASwitchForOnOnlyWhenItIsOne) {
  const kv_scanobject_ptr job = make_job("<script>", {}, "text/html");
  job->ActiveContent->slots[KV_AC_HTML_SCRIPT] = 2;
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  EXPECT_EQ(
      kvactivecontent_html(job.get(), nullptr, reason.data(), error.data(), 0, KV_NO_TIME_LIMIT),
      0);
}

TEST(HtmlSurface, ChecksTagsForAnyList) {
  const std::string text = "<p><a blink><script>";
  const kv_scanobject_ptr job = make_job(text, {KV_AC_HTML_SCRIPT});
  for (const auto& [words, expected] :
       {std::pair{std::array{"blink", ""}, "\"blink-tag\" detected in markup"},
        std::pair{std::array{"p", ""}, "\"p-tag\" detected in markup"},
        std::pair{std::array{"script", ""}, "\"script-tag\" detected in markup"},
        std::pair{std::array{"", ""}, ""}}) {
    std::array<char, KV_REASON_SIZE> reason{};
    std::array<char, KV_REASON_SIZE> error{};
    const std::int32_t code =
        kvactivecontent_html_CheckTags(job.get(), text.data(), text.size(), nullptr, words.data(),
                                       reason.data(), error.data(), 0, KV_NO_TIME_LIMIT);
    EXPECT_STREQ(reason.data(), expected);
    EXPECT_EQ(code, *expected == '\0' ? 0 : -202);
  }
}

TEST(HtmlSurface, AnalysesATagAsTheFlagsAsk) {
  constexpr std::array kWords{"script", ""};
  const kv_scanobject_ptr job =
      make_job("", {KV_AC_HTML_SCRIPT, KV_AC_HTML_EVENTHANDLER}, "text/html");
  const auto analyse = [&](const char* tag, unsigned flags) {
    std::array<char, KV_REASON_SIZE> reason{};
    std::array<char, KV_REASON_SIZE> error{};
    static_cast<void>(analyseTag(tag, job.get(), nullptr, kWords.data(), reason.data(),
                                 error.data(), 0, KV_NO_TIME_LIMIT, kv_invocation_pattern(),
                                 static_cast<std::uint8_t>(flags)));
    return std::string(reason.data()) + error.data();
  };
  constexpr const char* kTag = "<script onclick=\"javascript:x\" srcdoc=y";
  EXPECT_EQ(analyse(kTag, 0), "");
  EXPECT_EQ(analyse(kTag, KV_MARKUP_JAVASCRIPT), kPattern);
  EXPECT_EQ(analyse(kTag, KV_MARKUP_SRCDOC), "Failed to extract HTML5 srcdoc");
  EXPECT_EQ(analyse("<a b='data:,x", KV_MARKUP_DATA_URL), "Failed to extract data URL");
  EXPECT_EQ(analyse(kTag, KV_MARKUP_EVENT_HANDLER), s_handler("onclick"));
  EXPECT_EQ(analyse(kTag, KV_MARKUP_BANNED_TAG), s_tag("script"));
  // The order of the tests.
  EXPECT_EQ(analyse(kTag, 31), kPattern);
  EXPECT_EQ(analyse(kTag, 30), "Failed to extract HTML5 srcdoc");
  EXPECT_EQ(analyse(kTag, 28), s_handler("onclick"));
}

struct quote_case {
  std::string tag;
  std::string expected;
};
class HtmlRemoveQuotedText : public testing::TestWithParam<quote_case> {};

TEST_P(HtmlRemoveQuotedText, KeepsTheQuotes) {
  const std::string& tag = GetParam().tag;
  std::string output(tag.size() + 1, 'x');
  EXPECT_EQ(kvactivecontent_removeQuotedText(tag.data(), tag.size(), output.data()),
            GetParam().expected.size());
  EXPECT_EQ(std::string(output.c_str()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Tags, HtmlRemoveQuotedText,
                         testing::Values(quote_case{"", ""}, quote_case{"<a>", "<a>"},
                                         quote_case{"<a b=\"c d\" e>", "<a b=\"\" e>"},
                                         quote_case{"<a b='c d'>", "<a b='c d'>"},
                                         quote_case{"<a \"b\\\"c\" d>", "<a \"\" d>"},
                                         quote_case{"<a \\\"b\"c\">", "<a \\\"b\"\">"},
                                         quote_case{"<a \"b c", "<a \""},
                                         quote_case{"\"a\"", "\"\""}));

TEST(HtmlLog, NamesTheQuickChecks) {
  const trace_capture trace;
  static_cast<void>(s_scan(kBoth, "javascript srcdoc data: onclick Object script"));
  EXPECT_EQ(trace.count("DEBUG",
                        "Quick check found banned tag \"script\" - including them in the"
                        " scan"),
            1);
  EXPECT_EQ(trace.count("DEBUG", "Flags: 0x00011111"), 1);
  static_cast<void>(s_scan(kBoth, "srcdoc"));
  EXPECT_EQ(trace.count("DEBUG", "No banned tags found"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Flags: 0x00000010"), 1);
  static_cast<void>(s_scan(kBoth, "OBJECT"));
  EXPECT_EQ(trace.count("Quick check found banned tag \"object\""), 1);
  EXPECT_EQ(trace.count("DEBUG", "Flags: 0x00010000"), 1);
}

TEST(HtmlLog, NamesTheTests) {
  const trace_capture trace;
  static_cast<void>(s_scan(kBoth, "<p a=\"javascript:\"></p>"));
  static_cast<void>(s_scan(kBoth, "<p>javascript<a b=\"c\" onclick>"));
  EXPECT_GE(trace.count("DEBUG", "Checking for javascript invocation tags"), 1);
  EXPECT_GE(trace.count("DEBUG", "no match"), 1);
  EXPECT_GE(trace.count("DEBUG", "Checking for HTML event handlers"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Check for event-handlers in html returns -202"), 1);
  EXPECT_GE(trace.count("DEBUG", "found tag (shortened): <p"), 1);
  EXPECT_EQ(trace.count("WARN", kPattern), 1);
}

TEST(HtmlLog, NamesTheFinding) {
  const trace_capture trace;
  static_cast<void>(s_scan(kScript, "<script b=\"c d\">"));
  EXPECT_EQ(trace.count("WARN", "found isolated keyword script in <script b=\"\">"), 1);
  EXPECT_EQ(trace.count("WARN", "Found tag <script b=\"c d\""), 1);
  EXPECT_EQ(trace.count("WARN", s_tag("script")), 1);
}

TEST(HtmlLog, NamesAnException) {
  const trace_capture trace;
  static_cast<void>(s_scan(kScript, "<fontscript object>"));
  EXPECT_EQ(trace.count("Found \"fontscript\" in a setting covered by an exception"), 1);
  EXPECT_EQ(trace.count("Found tag"), 0);
}

TEST(HtmlLog, TellsEnteringAndLeaving) {
  const kv_scanobject_ptr job = make_job("<script>", {KV_AC_HTML_SCRIPT}, "text/html");
  const trace_capture trace;
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  static_cast<void>(
      kvactivecontent_html(job.get(), nullptr, reason.data(), error.data(), 0, KV_NO_TIME_LIMIT));
  EXPECT_EQ(trace.count("TRACE", "Entering"), 3);
  EXPECT_EQ(trace.count("TRACE", "Exiting, rc=-202"), 3);
}
