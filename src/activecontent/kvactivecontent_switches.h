#pragma once
// Names of the active-content switches, as definitions carry them, with their slots. A constant
// table, for the definitions store and for local scans; any thread.

#include <algorithm>
#include <array>
#include <string_view>

#include "worker/kv_worker_scan_types.h"

struct kv_ac_named_switch {
  std::string_view name;
  kv_ac_slot slot;
};

// Slot order. The last slot has no name.
inline constexpr std::array<kv_ac_named_switch, KV_AC_SLOT_COUNT - 1> KV_AC_SWITCHES{{
    {"EXECUTABLE", KV_AC_EXECUTABLE},
    {"FLASH", KV_AC_FLASH},
    {"GIFAR", KV_AC_GIFAR},
    {"HTML_EVENTHANDLER", KV_AC_HTML_EVENTHANDLER},
    {"HTML_SCRIPT", KV_AC_HTML_SCRIPT},
    {"MSOFFICE_JAVA", KV_AC_MSOFFICE_JAVA},
    {"MSOFFICE_OLE", KV_AC_MSOFFICE_OLE},
    {"MSOFFICE_DDE", KV_AC_MSOFFICE_DDE},
    {"MSOFFICE_MACRO", KV_AC_MSOFFICE_MACRO},
    {"MSOFFICE_MACRO_SIGNED", KV_AC_MSOFFICE_MACRO_SIGNED},
    {"PDF_ACROFORM", KV_AC_PDF_ACROFORM},
    {"PDF_ACTIVEACTION", KV_AC_PDF_ACTIVEACTION},
    {"PDF_JAVASCRIPT", KV_AC_PDF_JAVASCRIPT},
    {"PDF_LAUNCH", KV_AC_PDF_LAUNCH},
    {"PDF_OPENACTION", KV_AC_PDF_OPENACTION},
    {"PDF_RICHMEDIA", KV_AC_PDF_RICHMEDIA},
    {"PDF_METADATA_PERL", KV_AC_PDF_METADATA_PERL},
    {"PDF_METADATA_PHP", KV_AC_PDF_METADATA_PHP},
    {"SILVERLIGHT", KV_AC_SILVERLIGHT},
    {"ZIP_JAVA_ARCHIVE", KV_AC_ZIP_JAVA_ARCHIVE},
    {"XML_JAVASCRIPT", KV_AC_XML_JAVASCRIPT},
    {"XML_XSLT", KV_AC_XML_XSLT},
    {"CSV_INJECTION", KV_AC_CSV_INJECTION},
}};
static_assert(std::ranges::is_sorted(KV_AC_SWITCHES, {}, &kv_ac_named_switch::slot));
