#pragma once
// The PDF check written out byte by byte, without a thought for speed: what the product's scanner
// is held against in differential tests. Collects the lines that a trace at TRACE level would show.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/PDFscan.h"

struct pdf_reference_result {
  std::int32_t code = 0;
  std::int32_t match_index = -1;
  std::vector<std::string> log;  // "LEVEL text"
};

[[nodiscard]] pdf_reference_result pdf_reference_scan(std::string_view bytes,
                                                      const kv_pdf_keyword_t* table);

// 1 or 0, as the last trailer is followed by "/Encrypt" or not.
[[nodiscard]] int pdf_reference_is_encrypted(std::string_view bytes);
