#pragma once
// What a row of the dispatch is made of: guard, condition, log line, and either a finding or a
// detector. Private to the dispatch and its tests. Conditions are pure: the texts that describe an
// object go in, yes or no comes out.
//
// A row is one line of the table in kvactivecontent_dispatch.cpp:
//
//   dispatch_finding(guard, condition, log line, reason)
//     Plain detection: while the guard is on, logs the line and tests the condition; when it holds
//     the outcome is -202 with the reason. kTypeText as reason stands for the object's own type
//     text. A null log line logs nothing (a row that belongs to the check of the row before it).
//   dispatch_detector<function>(guard, condition, log line, bytes)
//     While the guard is on and the condition holds, logs the line and calls the detector, whose
//     answer is the row's outcome. bytes says when the row cannot be answered without the object's
//     bytes: kAlwaysNeedsBytes, or dispatch_slots({...}) for "when one of these switches is on".
//
// guard is a switch of the tenant's definition, or kNoGuard. So the detectors' rows read:
//
//   dispatch_detector<kvactivecontent_html>(kNoGuard, dispatch_is_markup,
//                                           "Checking in html/xml content", kMarkupSwitches),
//   dispatch_detector<kvactivecontent_GIFAR>(KV_AC_GIFAR, dispatch_is_anything, nullptr,
//                                            kAlwaysNeedsBytes),

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "activecontent/kvactivecontent_detectors.h"

// The texts by which an object is sorted. "Contains" is a test without regard to ASCII letter case,
// done on texts that were folded once.
struct object_kind {
  explicit object_kind(const scanobject& job);

  [[nodiscard]] bool mime_has(std::string_view lower_case) const {
    return mime.find(lower_case) != std::string::npos;
  }
  [[nodiscard]] bool type_has(std::string_view lower_case) const {
    return type.find(lower_case) != std::string::npos;
  }

  std::string_view exact_mime;  // letter case as received; borrowed from the job
  std::string_view exact_type;
  std::string mime;  // lower case
  std::string type;
  std::string extension;
};

[[nodiscard]] bool dispatch_is_javascript_source(const object_kind& kind);
[[nodiscard]] bool dispatch_is_java_archive(const object_kind& kind);
[[nodiscard]] bool dispatch_is_flash(const object_kind& kind);
[[nodiscard]] bool dispatch_is_silverlight(const object_kind& kind);
[[nodiscard]] bool dispatch_is_executable(const object_kind& kind);
[[nodiscard]] bool dispatch_is_batch_file(const object_kind& kind);
[[nodiscard]] bool dispatch_is_msi(const object_kind& kind);
[[nodiscard]] bool dispatch_is_markup(const object_kind& kind);
[[nodiscard]] bool dispatch_is_pdf(const object_kind& kind);
[[nodiscard]] bool dispatch_is_compound_office(const object_kind& kind);
[[nodiscard]] bool dispatch_is_ooxml(const object_kind& kind);
[[nodiscard]] bool dispatch_is_delimited_text(const object_kind& kind);
[[nodiscard]] bool dispatch_is_anything(const object_kind& kind);

// Everything that a detector may be given.
struct dispatch_call {
  scanobject* job;
  kv_scan_result_t* consolidated;
  char* reason;
  char* error;
  std::uint8_t flag;
};

inline constexpr kv_ac_slot kNoGuard = KV_AC_SLOT_COUNT;
inline constexpr std::uint32_t kAlwaysNeedsBytes = 1U << 31;
inline constexpr const char* kTypeText = nullptr;

[[nodiscard]] constexpr std::uint32_t dispatch_slots(std::initializer_list<kv_ac_slot> slots) {
  std::uint32_t mask = 0;
  for (const kv_ac_slot slot : slots) {
    mask |= 1U << slot;
  }
  return mask;
}

// Switches of the detectors that read several: while one is on, the bytes are needed. (That a
// signed macro counts too changes only what "MSOFFICE_MACRO" means.)
inline constexpr std::uint32_t kMarkupSwitches = dispatch_slots(
    {KV_AC_HTML_EVENTHANDLER, KV_AC_HTML_SCRIPT, KV_AC_XML_JAVASCRIPT, KV_AC_XML_XSLT});
inline constexpr std::uint32_t kCompoundSwitches =
    dispatch_slots({KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_MACRO});
inline constexpr std::uint32_t kPackageSwitches = dispatch_slots(
    {KV_AC_MSOFFICE_JAVA, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE, KV_AC_MSOFFICE_MACRO});

struct dispatch_row {
  kv_ac_slot guard;                                // switch that must be on, or kNoGuard
  bool (*applies)(const object_kind& kind);        // the condition
  const char* log_line;                            // at DEBUG; null for none
  const char* reason;                              // of a finding; kTypeText: the type text
  std::int32_t (*detect)(const dispatch_call& c);  // null for a finding
  std::uint32_t needs_bytes;                       // switches that need bytes, or kAlwaysNeedsBytes
};

// Calls a detector with as much as it takes.
template <auto Detector>
std::int32_t dispatch_invoke(const dispatch_call& call) {
  using detector = decltype(Detector);
  if constexpr (std::is_invocable_v<detector, scanobject*, char*>) {
    return Detector(call.job, call.reason);
  } else if constexpr (std::is_invocable_v<detector, scanobject*, char*, char*>) {
    return Detector(call.job, call.reason, call.error);
  } else {
    return Detector(call.job, call.consolidated, call.reason, call.error, call.flag,
                    kv_scan_time_left_ms(*call.job));
  }
}

[[nodiscard]] constexpr dispatch_row dispatch_finding(kv_ac_slot guard,
                                                      bool (*applies)(const object_kind&),
                                                      const char* log_line, const char* reason) {
  return {guard, applies, log_line, reason, nullptr, 0};
}

template <auto Detector>
[[nodiscard]] constexpr dispatch_row dispatch_detector(kv_ac_slot guard,
                                                       bool (*applies)(const object_kind&),
                                                       const char* log_line,
                                                       std::uint32_t needs_bytes) {
  return {guard, applies, log_line, nullptr, dispatch_invoke<Detector>, needs_bytes};
}

// Runs the rows in order; the first outcome other than 0 ends it.
[[nodiscard]] std::int32_t dispatch_run(std::span<const dispatch_row> rows,
                                        const dispatch_call& call);
// The same, where an exception becomes a failed scan.
[[nodiscard]] std::int32_t dispatch_run_guarded(std::span<const dispatch_row> rows,
                                                const dispatch_call& call);
