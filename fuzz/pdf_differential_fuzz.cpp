// The fast PDF scanner must say what the literal one says.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "activecontent/PDFscan.h"
#include "support/pdf_reference.h"

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
  return 0;
}
