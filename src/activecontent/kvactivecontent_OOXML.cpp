#define KV_LOG_UNIT "kvactivecontent_msoffice"
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "activecontent/kv_archive_listing.h"
#include "activecontent/kvactivecontent_dde.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "common/kv_archive_walk.h"
#include "logging/log-helper.h"

namespace {

constexpr const char* kDetector = "kvactivecontent_OOXML";

// Ends of the paths of a package's main part: document, workbook, presentation.
constexpr std::array<std::string_view, 3> kMainParts{"document.xml", "workbook.xml",
                                                     "presentation.xml"};

struct package_check {
  scanobject& job;
  char* reason;
  char* error;
};

bool s_is_main_part(std::string_view path) {
  return std::ranges::any_of(kMainParts, [&](std::string_view end) { return path.ends_with(end); });
}

std::int32_t s_detected(const package_check& check, const char* reason) {
  static_cast<void>(std::snprintf(check.reason, KV_REASON_SIZE, "%s", reason));
  KV_LOG_AS(KV_LOG_LEVEL_WARN, kDetector, "%s", reason);
  return KV_RESULT_ACTIVE_CONTENT;
}

// A test that is nothing but a search for a member name.
std::int32_t s_check_name(const package_check& check, kv_member_token token, const char* reason,
                          const char* not_found) {
  switch (kv_archive_listing_find(check.job, token, check.error)) {
    case KV_ARCHIVE_FOUND:
      return s_detected(check, reason);
    case KV_ARCHIVE_NOT_FOUND:
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "%s", not_found);
      return KV_RESULT_CLEAN;
    case KV_ARCHIVE_CUT:
      return KV_RESULT_FAILED;
    default:
      return KV_RESULT_CLEAN;
  }
}

// While signed macros are not asked for, a signature beside the macro makes it acceptable.
std::int32_t s_check_macro(const package_check& check) {
  constexpr const char* kReason = "\"VBA-macro\" detected in MS-Office OOXML document";
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Checking for macro in OOXML");
  const bool signature_counts = check.job.ActiveContent->slots[KV_AC_MSOFFICE_MACRO_SIGNED] == 0;
  if (!signature_counts) {
    return s_check_name(check, KV_MEMBER_MACRO, kReason, "No macro found");
  }
  const int macro = kv_archive_listing_find(check.job, KV_MEMBER_MACRO, check.error);
  if (macro == KV_ARCHIVE_FOUND) {
    switch (kv_archive_listing_find(check.job, KV_MEMBER_MACRO_SIGNATURE, check.error)) {
      case KV_ARCHIVE_FOUND:
        KV_LOG_AS(KV_LOG_LEVEL_INFO, kDetector, "Macro was found but is signed - ACCEPTING");
        return KV_RESULT_CLEAN;
      case KV_ARCHIVE_CUT:
        return KV_RESULT_FAILED;
      default:
        return s_detected(check, kReason);
    }
  }
  if (macro == KV_ARCHIVE_NOT_FOUND) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "No macro found");
  }
  return macro == KV_ARCHIVE_CUT ? KV_RESULT_FAILED : KV_RESULT_CLEAN;
}

std::int32_t s_check_embedded(const package_check& check) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Checking for OLE in OOXML");
  return s_check_name(check, KV_MEMBER_EMBEDDED,
                      "\"OLE object\" detected in MS-Office OOXML document", "No OLE object found");
}

std::int32_t s_check_text(const package_check& check, std::string_view text) {
  return kv_dde_check(text) == 1 ? s_detected(check, "\"DDE\" detected in MS-Office OOXML document")
                                 : KV_RESULT_CLEAN;
}

void s_log_unreadable(const kv_archive_walk& walk, const std::string& path) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kDetector, "Failed to extract file \"%s\" from archive",
            path.c_str());
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kDetector, "Error: %s", walk.error_text());
}

// Examines the first main part that can be read. What the walk came to when it was cut short is
// the caller's to report.
std::int32_t s_walk_to_main_part(const package_check& check, kv_archive_walk& walk) {
  kv_member_bytes content;
  while (walk.next()) {
    if (!s_is_main_part(walk.name())) {
      continue;
    }
    const std::string path{walk.name()};
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "found %s", path.c_str());
    switch (walk.read(content)) {
      case kv_member_read::done:
        return s_check_text(check, content.text());
      case kv_member_read::failed:
        s_log_unreadable(walk, path);
        break;
      case kv_member_read::unallocated:
        KV_LOG_AS(KV_LOG_LEVEL_ERROR, kDetector, "Failed to allocate %s", "file_content");
        return KV_RESULT_CLEAN;
      case kv_member_read::cut:
        return KV_RESULT_CLEAN;
    }
  }
  return KV_RESULT_CLEAN;
}

std::int32_t s_check_dde(const package_check& check) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "checking for DDE");
  kv_archive_walk walk{kv_object_bytes(check.job), kv_object_time(check.job)};
  std::int32_t result = KV_RESULT_CLEAN;
  if (walk.open()) {
    result = s_walk_to_main_part(check, walk);
  } else if (walk.cut() == kv_archive_cut::none) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kDetector, "Can't open as archive. Code %d: %s",
              walk.error_code(), walk.error_text());
  }
  if (walk.cut() != kv_archive_cut::none) {
    return kv_archive_report_cut(walk.cut(), check.error);
  }
  return result;
}

std::int32_t s_check_java(const package_check& check) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kDetector, "Checking for Java classes in OOXML");
  return s_check_name(check, KV_MEMBER_JAVA_CLASS,
                      "\"Java class\" detected in MS-Office OOXML document",
                      "No Java classes object found");
}

struct package_test {
  kv_ac_slot guard;
  std::int32_t (*run)(const package_check&);
};
// The order is behaviour: the first outcome other than 0 ends the check.
constexpr std::array<package_test, 4> kTests{{
    {KV_AC_MSOFFICE_MACRO, s_check_macro},
    {KV_AC_MSOFFICE_OLE, s_check_embedded},
    {KV_AC_MSOFFICE_DDE, s_check_dde},
    {KV_AC_MSOFFICE_JAVA, s_check_java},
}};

}  // namespace

std::int32_t kvactivecontent_OOXML(scanobject* job, char* reason, char* error) {
  int rc = KV_RESULT_CLEAN;
  KV_TRACE_SCOPE(rc);
  const package_check check{*job, reason, error};
  for (const package_test& test : kTests) {
    if (kv_scan_switch_is_on(*job, test.guard)) {
      rc = test.run(check);
    }
    if (rc != KV_RESULT_CLEAN) {
      break;
    }
  }
  return rc;
}
