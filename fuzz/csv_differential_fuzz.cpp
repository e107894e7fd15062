// The fast check for formula injection must say what the literal one says, at every vector level.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "activecontent/kvactivecontent_csv.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "support/csv_product.h"
#include "support/csv_reference.h"
#include "support/job_builder.h"
#include "support/simd_levels.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes{reinterpret_cast<const char*>(data), size};
  const auto job = make_job(bytes, {KV_AC_CSV_INJECTION}, "text/csv");
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const std::int32_t code = kvactivecontent_csv_command(job.get(), reason.data(), error.data());
  const csv_reference_result expected = csv_reference_check(bytes);
  if (code != expected.code || expected.reason != reason.data() ||
      s_CountDelimiters(data, size, ',') != csv_reference_count_delimiters(bytes, ',')) {
    std::abort();
  }
  for (const kv_simd_level level : available_simd_levels()) {
    const csv_reference_result at_level = csv_product_check(bytes, level);
    if (at_level.code != expected.code || at_level.reason != expected.reason) {
      std::abort();
    }
  }
  return 0;
}
