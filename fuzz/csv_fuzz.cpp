// The check for formula injection over the input.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto job =
      make_job({reinterpret_cast<const char*>(data), size}, {KV_AC_CSV_INJECTION}, "text/csv");
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const std::int32_t code = kvactivecontent_csv_command(job.get(), reason.data(), error.data());
  const bool has_reason = std::string_view(reason.data()).starts_with("\"CSV-injection: ");
  if ((code != 0 && code != -202) || (code == -202) != has_reason || error[0] != '\0') {
    std::abort();
  }
  return 0;
}
