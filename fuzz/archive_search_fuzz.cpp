// Any bytes through the member-name search and the reading of a package's main part. The time that
// a walk may take is bounded, as it is in a scan.
#include <chrono>

#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const kv_scanobject_ptr job = make_job({reinterpret_cast<const char*>(data), size},
                                         {KV_AC_GIFAR, KV_AC_MSOFFICE_JAVA, KV_AC_MSOFFICE_DDE,
                                          KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_MACRO});
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  job->start_ms = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
  job->limit_ms = 2000;
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  static_cast<void>(kvactivecontent_OOXML(job.get(), reason, error));
  static_cast<void>(kvactivecontent_GIFAR(job.get(), reason, error));
  return 0;
}
