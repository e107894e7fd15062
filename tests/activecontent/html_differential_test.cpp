// The fast markup scan against its plain form, over samples and over texts put together at random
// from the pieces that matter; at every level of vector code.
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "logging/log-helper.h"
#include "support/markup_product.h"
#include "support/markup_reference.h"

namespace {

constexpr auto kPieces = std::to_array<std::string_view>(
    {"<",
     "<",
     "<",
     ">",
     ">",
     ">",
     "\"",
     "\"",
     "'",
     "=",
     "=",
     " ",
     " ",
     "/",
     "\\",
     "\n",
     "\r",
     "\t",
     "\f",
     "!",
     "-",
     "--",
     "<!--",
     "-->",
     "--!>",
     "&",
     ";",
     "&lt;",
     "&#60;",
     "&#x3C;",
     "&#0;",
     "&quot;",
     "&#x110000;",
     "&apos;",
     "script",
     "Script",
     "scr",
     "ipt",
     "object",
     "javascript",
     "javascript:",
     "java",
     "JAVASCRIPT:",
     "xsl",
     "applet",
     "embed",
     "?php",
     "srcdoc",
     "SRCDOC=",
     "src",
     "doc",
     "data:",
     "DATA:",
     "da",
     "ta:",
     ",",
     "base64",
     ";base64,",
     "QUJD",
     "QQ==",
     "%41",
     "%",
     "onload",
     "onloadstart",
     "onclick",
     "OnClick",
     "onfocusin",
     "on",
     "load",
     "ev:event",
     "pointer-events",
     "x",
     "y",
     ":",
     "fontscript",
     "font",
     ".addEventListener(",
     "<a href=\"javascript:x\">",
     "<iframe srcdoc='<b>'>",
     "<img src=\"data:,x\">",
     "<svg/onload=x>",
     "padding padding padding padding padding padding padding padding "});

std::string s_random_text(std::mt19937& random, std::size_t pieces) {
  std::string text;
  for (std::size_t i = 0; i < pieces; ++i) {
    text += kPieces[random() % kPieces.size()];
  }
  return text;
}

markup_reference_job s_random_job(std::mt19937& random) {
  markup_reference_job job;
  job.html_script = random() % 4 != 0;
  job.html_eventhandler = random() % 2 == 0;
  job.xml_javascript = random() % 4 == 0;
  job.xml_xslt = random() % 4 == 0;
  job.mime_type = random() % 2 == 0 ? "text/html" : "image/svg+xml";
  return job;
}

void s_expect_same(const markup_reference_job& job, const std::string& text,
                   const markup_answer& answer) {
  const markup_outcome expected = markup_reference_scan(job, text, answer);
  for (const kv_simd_level level : available_simd_levels()) {
    const markup_outcome found =
        markup_product_scan(job, text, answer, markup_environment_at(level));
    ASSERT_EQ(found, expected) << "at level " << static_cast<int>(level) << ": "
                               << testing::PrintToString(text) << "\nfound " << found.code << " "
                               << found.reason << " " << found.error << ", expected "
                               << expected.code << " " << expected.reason << " " << expected.error;
  }
}

}  // namespace

TEST(HtmlDifferential, AgreesOnRandomTexts) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 4'000 && !testing::Test::HasFatalFailure(); ++round) {
    const markup_reference_job job = s_random_job(random);
    const std::int32_t child_code = random() % 8 == 0 ? -202 : 0;
    s_expect_same(job, s_random_text(random, 1 + random() % 60),
                  [child_code](const markup_child& child) {
                    return child.content.size() % 2 == 0 ? child_code : 0;
                  });
  }
}

// More occurrences than are kept at once, so that the text is searched again on the way.
TEST(HtmlDifferential, AgreesOnTextsDenseWithLiterals) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 2 && !testing::Test::HasFatalFailure(); ++round) {
    std::string text;
    while (text.size() < 120'000) {
      text += random() % 50 == 0 ? "<x " : "";
      text += random() % 2 == 0 ? " data:" : " xonclick ";
      text += random() % 50 == 0 ? "\n>" : "";
    }
    text += round % 2 == 0 ? "<b onclick=1>" : "<b>";
    s_expect_same({.html_eventhandler = true, .html_script = true}, text,
                  [](const markup_child&) { return 0; });
  }
}

// A log at DEBUG examines every tag instead of stepping over: the outcome stays.
TEST(HtmlDifferential, AgreesWithEveryTagLogged) {
  std::mt19937 random(7);
  log_set_quiet(1);
  log_set_screentrace(0);
  log_set_level(KV_LOG_LEVEL_DEBUG);
  for (int round = 0; round < 500 && !testing::Test::HasFatalFailure(); ++round) {
    s_expect_same(s_random_job(random), s_random_text(random, 1 + random() % 60),
                  [](const markup_child&) { return 0; });
  }
  log_set_level(KV_LOG_LEVEL_OFF);
}
