#include <array>
#include <cstdio>
#include <exception>

#include "activecontent/PDFscan.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"

namespace {

struct pdf_rule {
  kv_ac_slot slot;
  bool any_value;  // on for every value but 0, instead of 1 alone
  kv_pdf_keyword_t entry;
};

// The order decides which reason is given.
constexpr std::array<pdf_rule, 9> kRules{{
    {KV_AC_PDF_ACROFORM, false, {"/AcroForm", "AcroForm element detected"}},
    {KV_AC_PDF_ACTIVEACTION, false, {"/AA", "ActiveAction element detected"}},
    {KV_AC_PDF_JAVASCRIPT, false, {"/JavaScript", "/JavaScript detected"}},
    {KV_AC_PDF_JAVASCRIPT, false, {"/JS", "/JS element detected"}},
    {KV_AC_PDF_LAUNCH, false, {"/Launch", "/Launch element detected"}},
    {KV_AC_PDF_OPENACTION, true, {"/OpenAction", "OpenAction element detected"}},
    {KV_AC_PDF_RICHMEDIA, true, {"/RichMedia", "Richmedia element detected"}},
    {KV_AC_PDF_METADATA_PHP, true, {"<?php", "PHP detected in Meta-data"}},
    {KV_AC_PDF_METADATA_PERL, true, {"perl", "Perl detected in Meta-data"}},
}};
static_assert(kRules.size() <= KV_PDF_MAX_KEYWORDS);

using keyword_table = std::array<kv_pdf_keyword_t, KV_PDF_MAX_KEYWORDS + 1>;

bool s_is_on(const scanobject& job, const pdf_rule& rule) {
  return rule.any_value ? job.ActiveContent->slots[rule.slot] != 0
                        : kv_scan_switch_is_on(job, rule.slot);
}

keyword_table s_keywords(const scanobject& job) {
  keyword_table table;
  table.fill({"", ""});
  std::size_t count = 0;
  for (const pdf_rule& rule : kRules) {
    if (s_is_on(job, rule)) {
      table[count++] = rule.entry;
    }
  }
  return table;
}

std::int32_t s_scan(const scanobject& job, char* reason) {
  const keyword_table table = s_keywords(job);
  const std::size_t length =
      job.object_length > 0 ? static_cast<std::size_t>(job.object_length) : 0;
  std::int32_t match_index = KV_PDF_NO_MATCH;
  const std::int32_t rc = kv_PDFscan(job.data, length, table.data(), &match_index);
  if (rc == KV_RESULT_ACTIVE_CONTENT) {
    static_cast<void>(std::snprintf(reason, KV_REASON_SIZE, "%s",
                                    table[static_cast<std::size_t>(match_index)].reason));
    KV_LOG_WARN("%s", reason);
  }
  return rc;
}

}  // namespace

std::int32_t kvactivecontent_PDF(scanobject* job, char* reason) {
  std::int32_t rc = KV_RESULT_FAILED;
  KV_TRACE_SCOPE(rc);
  try {
    rc = s_scan(*job, reason);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
  }
  KV_LOG_DEBUG("Returning %d", rc);
  return rc;
}
