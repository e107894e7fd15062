// The fast PDF scanner must say what the literal one says, at every vector level.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "activecontent/PDFscan.h"
#include "support/pdf_reference.h"
#include "support/simd_levels.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr kv_pdf_keyword_t kTable[] = {
      {"/AcroForm", ""},   {"/AA", ""},        {"/JavaScript", ""}, {"/JS", ""},  {"/Launch", ""},
      {"/OpenAction", ""}, {"/RichMedia", ""}, {"<?php", ""},       {"perl", ""}, {"", ""}};
  const std::string_view bytes{reinterpret_cast<const char*>(data), size};
  const pdf_reference_result expected = pdf_reference_scan(bytes, kTable);
  std::int32_t index = KV_PDF_NO_MATCH;
  const std::int32_t code = kv_PDFscan(data, size, kTable, &index);
  if (code != expected.code || index != expected.match_index ||
      kv_PDF_IsEncrypted(data, size) != pdf_reference_is_encrypted(bytes)) {
    std::abort();
  }
  for (const kv_simd_level level : available_simd_levels()) {
    std::int32_t at_level = KV_PDF_NO_MATCH;
    if (kv_pdf_scan_with(data, size, kTable, &at_level, level, *std::pmr::new_delete_resource()) !=
            expected.code ||
        at_level != expected.match_index) {
      std::abort();
    }
  }
  return 0;
}
