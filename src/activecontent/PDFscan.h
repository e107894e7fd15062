#pragma once
// Scanner for PDF documents. A PDF is not parsed: its indirect objects are found by the words "obj"
// and "endobj", and keywords are looked for in the first dictionary of each, behind the escapes
// that names may hold (ISO 32000-1, 7.3.5). One forward pass, no limit on object sizes. No state;
// any thread.

#include <cstddef>
#include <cstdint>
#include <memory_resource>

#include "activecontent/kv_simd_level.h"

// A row of a keyword table; an empty keyword ends the table.
struct kv_pdf_keyword_t {
  const char* keyword;  // found whatever its letter case
  const char* reason;   // what to tell whoever sent the document
};

// Rows that a table may hold, its end not counted.
inline constexpr std::size_t KV_PDF_MAX_KEYWORDS = 12;
// Match index of a scan that found nothing: what the caller sets before the scan.
inline constexpr std::int32_t KV_PDF_NO_MATCH = -1;

// 0 when nothing was found, -202 with the row's position in match_index, or -1000 when out of
// memory. match_index is KV_PDF_NO_MATCH before the call.
[[nodiscard]] std::int32_t kv_PDFscan(const void* bytes, std::size_t length,
                                      const kv_pdf_keyword_t* table, std::int32_t* match_index);

// The same at a vector level that the processor has, with the memory that copies of dictionaries
// are made in.
[[nodiscard]] std::int32_t kv_pdf_scan_with(const void* bytes, std::size_t length,
                                            const kv_pdf_keyword_t* table,
                                            std::int32_t* match_index, kv_simd_level level,
                                            std::pmr::memory_resource& memory);

// 1 when the document's last trailer is followed by "/Encrypt", else 0.
[[nodiscard]] int kv_PDF_IsEncrypted(const void* bytes, std::size_t length);

// Where "/Encrypt" stands behind the last trailer, or null.
[[nodiscard]] const char* s_GetEncrypt(const void* bytes, std::size_t length);
