#define KV_LOG_UNIT "kvactivecontent_handle_scan_request"
#include "activecontent/kvactivecontent_dispatch.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>

#include "activecontent/kvactivecontent_dispatch_rows.h"
#include "logging/log-helper.h"

namespace {

// The order is behaviour: the first outcome other than 0 ends the dispatch.
constexpr std::array kRows{
    // Reserved: no definition sets this switch.
    dispatch_finding(KV_AC_JAVASCRIPT_SOURCE, dispatch_is_javascript_source,
                     "Checking for javascript", "\"javascript source code\" detected"),
    dispatch_finding(KV_AC_ZIP_JAVA_ARCHIVE, dispatch_is_java_archive, "Checking for java archive",
                     "\"java archive\" detected"),
    dispatch_finding(KV_AC_FLASH, dispatch_is_flash, "Checking for Flash", kTypeText),
    dispatch_finding(KV_AC_SILVERLIGHT, dispatch_is_silverlight, "Checking for Silverlight",
                     kTypeText),
    dispatch_finding(KV_AC_EXECUTABLE, dispatch_is_executable, "Checking for Executable",
                     kTypeText),
    dispatch_finding(KV_AC_EXECUTABLE, dispatch_is_batch_file, nullptr,
                     "\"DOS Batch file\" detected"),
    dispatch_finding(KV_AC_EXECUTABLE, dispatch_is_msi, nullptr, "\"MSI Installer\" detected"),
    dispatch_detector<kvactivecontent_html>(kNoGuard, dispatch_is_markup,
                                            "Checking in html/xml content", kMarkupSwitches),
    dispatch_detector<kvactivecontent_PDF>(kNoGuard, dispatch_is_pdf, "Checking in PDF",
                                           kAlwaysNeedsBytes),
    dispatch_detector<kvactivecontent_msoffice_CDFv2>(kNoGuard, dispatch_is_compound_office,
                                                      "Checking in CDFv2 Office Document",
                                                      kCompoundSwitches),
    dispatch_detector<kvactivecontent_OOXML>(kNoGuard, dispatch_is_ooxml, nullptr,
                                             kPackageSwitches),
    dispatch_detector<kvactivecontent_csv_command>(KV_AC_CSV_INJECTION, dispatch_is_delimited_text,
                                                   "Checking for CSV-injection", kAlwaysNeedsBytes),
    dispatch_detector<kvactivecontent_GIFAR>(KV_AC_GIFAR, dispatch_is_anything, nullptr,
                                             kAlwaysNeedsBytes),
};

// The job as detectors may see it while the guard lives: bytes are never null and a length is never
// negative. An object whose bytes are missing is an empty one to whoever does not need them.
class readable_job {
 public:
  explicit readable_job(scanobject& job)
      : job_(job), data_(job.data), length_(job.object_length), missing_(!data_ && length_ > 0) {
    if (data_ == nullptr || length_ < 0) {
      job_.object_length = 0;
    }
    if (data_ == nullptr) {
      job_.data = "";
    }
  }
  readable_job(const readable_job&) = delete;
  readable_job& operator=(const readable_job&) = delete;
  ~readable_job() {
    job_.data = data_;
    job_.object_length = length_;
  }
  // An object of some length came without its bytes.
  [[nodiscard]] bool bytes_are_missing() const { return missing_; }

 private:
  scanobject& job_;
  const void* data_;
  std::int64_t length_;
  bool missing_;
};

bool s_needs_bytes(const dispatch_row& row, const scanobject& job) {
  if (row.needs_bytes == kAlwaysNeedsBytes) {
    return true;
  }
  for (std::size_t slot = 0; slot < KV_AC_SLOT_COUNT; ++slot) {
    const auto name = static_cast<kv_ac_slot>(slot);
    if ((row.needs_bytes & dispatch_slots({name})) != 0 && kv_scan_switch_is_on(job, name)) {
      return true;
    }
  }
  return false;
}

void s_log_line(const dispatch_row& row) {
  if (row.log_line != nullptr) {
    KV_LOG_DEBUG("%s", row.log_line);
  }
}

std::int32_t s_fail(char* error, const char* text) {
  KV_LOG_ERROR("%s", text);
  static_cast<void>(std::snprintf(error, KV_REASON_SIZE, "%s", text));
  return KV_RESULT_FAILED;
}

// A plain detection: the description of the object alone decides.
std::int32_t s_find(const dispatch_row& row, const object_kind& kind, const dispatch_call& call) {
  s_log_line(row);
  if (!row.applies(kind)) {
    return KV_RESULT_CLEAN;
  }
  // A reason that does not fit is cut.
  const int printed =
      row.reason != kTypeText
          ? std::snprintf(call.reason, KV_REASON_SIZE, "%s", row.reason)
          : std::snprintf(call.reason, KV_REASON_SIZE, "\"%.*s\" detected",
                          static_cast<int>(std::min(kind.exact_type.size(), KV_REASON_SIZE)),
                          kind.exact_type.data());
  static_cast<void>(printed);
  KV_LOG_WARN("%s", call.reason);
  return KV_RESULT_ACTIVE_CONTENT;
}

std::int32_t s_detect(const dispatch_row& row, const object_kind& kind, const dispatch_call& call,
                      bool bytes_are_missing) {
  if (!row.applies(kind)) {
    return KV_RESULT_CLEAN;
  }
  s_log_line(row);
  if (bytes_are_missing && s_needs_bytes(row, *call.job)) {
    return s_fail(call.error, "Data length inconsistency");
  }
  return row.detect(call);
}

}  // namespace

std::int32_t dispatch_run(std::span<const dispatch_row> rows, const dispatch_call& call) {
  const object_kind kind{*call.job};
  const readable_job job{*call.job};
  for (const dispatch_row& row : rows) {
    if (row.guard != kNoGuard && !kv_scan_switch_is_on(*call.job, row.guard)) {
      continue;
    }
    const std::int32_t code = row.detect == nullptr
                                  ? s_find(row, kind, call)
                                  : s_detect(row, kind, call, job.bytes_are_missing());
    if (code != KV_RESULT_CLEAN) {
      return code;
    }
  }
  return KV_RESULT_CLEAN;
}

std::int32_t dispatch_run_guarded(std::span<const dispatch_row> rows, const dispatch_call& call) {
  try {
    return dispatch_run(rows, call);
  } catch (const std::exception& failure) {
    // What was not examined to its end is never called clean.
    return s_fail(call.error, failure.what());
  }
}

std::int32_t kvactivecontent_dispatch(scanobject* job, kv_scan_result_t* consolidated, char* reason,
                                      char* error, std::uint8_t flag) {
  return dispatch_run_guarded(kRows, {job, consolidated, reason, error, flag});
}
