// The detector: which switch looks for which keyword, in which order, and what is told.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

struct verdict {
  std::int32_t code;
  std::string reason;
  bool operator==(const verdict&) const = default;
};
std::ostream& operator<<(std::ostream& out, const verdict& v) {
  return out << v.code << " \"" << v.reason << "\"";
}

verdict detect(scanobject* job) {
  std::array<char, KV_REASON_SIZE> reason{};
  const std::int32_t code = kvactivecontent_PDF(job, reason.data());
  return {code, reason.data()};
}

std::string document(const std::string& entry) {
  return "%PDF-1.7\n1 0 obj\n<</Type/Catalog " + entry + ">>\nendobj\n";
}

struct rule {
  kv_ac_slot slot;
  bool any_value;
  const char* keyword;
  const char* reason;
};
constexpr rule kRules[] = {
    {KV_AC_PDF_ACROFORM, false, "/AcroForm", "AcroForm element detected"},
    {KV_AC_PDF_ACTIVEACTION, false, "/AA", "ActiveAction element detected"},
    {KV_AC_PDF_JAVASCRIPT, false, "/JavaScript", "/JavaScript detected"},
    {KV_AC_PDF_JAVASCRIPT, false, "/JS", "/JS element detected"},
    {KV_AC_PDF_LAUNCH, false, "/Launch", "/Launch element detected"},
    {KV_AC_PDF_OPENACTION, true, "/OpenAction", "OpenAction element detected"},
    {KV_AC_PDF_RICHMEDIA, true, "/RichMedia", "Richmedia element detected"},
    {KV_AC_PDF_METADATA_PHP, true, "<?php", "PHP detected in Meta-data"},
    {KV_AC_PDF_METADATA_PERL, true, "perl", "Perl detected in Meta-data"},
};

TEST(PdfDetector, ReportsAKeywordWhileItsSwitchIsOn) {
  for (const rule& present : kRules) {
    const std::string bytes = document(std::string(present.keyword) + " 2 0 R");
    for (const rule& on : kRules) {
      const auto job = make_job(bytes, {on.slot});
      const verdict expected =
          on.slot == present.slot ? verdict{-202, present.reason} : verdict{0, ""};
      EXPECT_EQ(detect(job.get()), expected) << present.keyword << " " << on.keyword;
    }
  }
}

TEST(PdfDetector, GivesTheReasonOfTheFirstRuleInOrder) {
  std::string entries;
  for (auto present = std::rbegin(kRules); present != std::rend(kRules); ++present) {
    entries += std::string(present->keyword) + " 1 ";  // the last rule stands first
    const auto job = make_job("", {});
    for (const rule& on : kRules) {
      job->ActiveContent->slots[on.slot] = 1;
    }
    const std::string bytes = document(entries);
    job->data = bytes.data();
    job->object_length = static_cast<std::int64_t>(bytes.size());
    EXPECT_EQ(detect(job.get()), (verdict{-202, present->reason}));
  }
}

TEST(PdfDetector, TakesOtherValuesThanOneForSomeSwitchesOnly) {
  for (const rule& rule : kRules) {
    const std::string bytes = document(std::string(rule.keyword) + " 2 0 R");
    const auto job = make_job(bytes);
    for (const std::uint8_t value : {std::uint8_t{2}, std::uint8_t{255}}) {
      job->ActiveContent->slots[rule.slot] = value;
      EXPECT_EQ(detect(job.get()), (rule.any_value ? verdict{-202, rule.reason} : verdict{0, ""}))
          << rule.keyword;
    }
  }
}

TEST(PdfDetector, WithAllSwitchesOffWalksTheFile) {
  const std::string bytes = document("/JS 1");
  const auto job = make_job(bytes);
  trace_capture trace;
  EXPECT_EQ(detect(job.get()), (verdict{0, ""}));
  EXPECT_EQ(trace.count("object from offset"), 1);
}

TEST(PdfDetector, LogsItsAnswerAndTheReason) {
  const std::string bytes = document("/JS 1");
  trace_capture trace;
  EXPECT_EQ(detect(make_job(bytes, {KV_AC_PDF_JAVASCRIPT}).get()).code, -202);
  EXPECT_EQ(trace.count("DEBUG", "kvactivecontent_PDF"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Returning -202"), 2);  // the detector's and the scanner's
  EXPECT_EQ(trace.count("WARN", "/JS element detected"), 1);
}

TEST(PdfDetector, TakesAnObjectWithoutBytesForEmpty) {
  const auto job = make_job("", {KV_AC_PDF_JAVASCRIPT});
  job->data = nullptr;
  EXPECT_EQ(detect(job.get()), (verdict{0, ""}));
  job->object_length = -1;
  EXPECT_EQ(detect(job.get()), (verdict{0, ""}));
}

}  // namespace
