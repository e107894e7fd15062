#pragma once
// The check for formula injection as the product does it, at one vector level, with the pattern's
// answers from the literal one: what is compared in differential tests and fuzz targets.

#include <array>
#include <memory_resource>
#include <string_view>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "support/csv_reference.h"

class csv_reference_pattern : public kv_csv_pattern {
 public:
  int compile() override { return 0; }
  kv_csv_match match(const char* cell) override {
    return csv_reference_match(cell) == 1 ? kv_csv_match::yes : kv_csv_match::no;
  }
};

[[nodiscard]] inline csv_reference_result csv_product_check(std::string_view bytes,
                                                            kv_simd_level level) {
  csv_reference_pattern pattern;
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  csv_reference_result result;
  result.code = kv_csv_check(bytes, pattern, level, *std::pmr::new_delete_resource(), reason.data(),
                             error.data());
  result.reason = reason.data();
  result.error = error.data();
  return result;
}
