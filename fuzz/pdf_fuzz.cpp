// The PDF detector with the switches that the first two bytes name, over the rest of the input.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "activecontent/PDFscan.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const std::string_view bytes{reinterpret_cast<const char*>(data) + 2, size - 2};
  const auto job = make_job(bytes);
  for (std::size_t i = 0; i < 8; ++i) {
    job->ActiveContent->slots[KV_AC_PDF_ACROFORM + i] =
        static_cast<std::uint8_t>(((data[0] >> i) & 1) * (1 + ((data[1] >> i) & 1)));
  }
  std::array<char, KV_REASON_SIZE> reason{};
  const std::int32_t code = kvactivecontent_PDF(job.get(), reason.data());
  if ((code != 0 && code != -202) || (code == -202) != (reason[0] != '\0')) {
    std::abort();
  }
  const char* entry = s_GetEncrypt(bytes.data(), bytes.size());
  if (entry != nullptr && std::string_view(entry, 8) != "/Encrypt") {
    std::abort();
  }
  return 0;
}
