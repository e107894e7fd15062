#pragma once
// The detectors that the content-type dispatch calls. Each looks at the bytes and switches of a
// scan job and returns a result code; on KV_RESULT_ACTIVE_CONTENT the reason text stands in reason,
// on KV_RESULT_FAILED an error text in error (buffers of KV_REASON_SIZE bytes, zeroed by the
// caller). No detector keeps state between calls, starts a thread or opens a file; any number may
// run at once.

#include <cstddef>
#include <cstdint>

#include "worker/kv_worker_scan_types.h"

// Size of the buffers for blocking reasons and error texts.
inline constexpr std::size_t KV_REASON_SIZE = 1024;

// Script and event handlers in HTML, XML and SVG. flag is handed on to the scan of embedded
// objects.
[[nodiscard]] std::int32_t kvactivecontent_html(scanobject* job, kv_scan_result_t* consolidated,
                                                char* reason, char* error, std::uint8_t flag,
                                                std::int64_t time_left_ms);
// Actions and script in PDF.
[[nodiscard]] std::int32_t kvactivecontent_PDF(scanobject* job, char* reason);
// Macros and OLE objects in compound-file documents.
[[nodiscard]] std::int32_t kvactivecontent_msoffice_CDFv2(scanobject* job, char* reason);
// Macros, OLE objects, DDE and Java in Office Open XML packages.
[[nodiscard]] std::int32_t kvactivecontent_OOXML(scanobject* job, char* reason, char* error);
// Formula injection in delimited text.
[[nodiscard]] std::int32_t kvactivecontent_csv_command(scanobject* job, char* reason, char* error);
// Java classes in any object that opens as an archive.
[[nodiscard]] std::int32_t kvactivecontent_GIFAR(scanobject* job, char* reason, char* error);
