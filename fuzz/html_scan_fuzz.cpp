// The whole markup detector through its surface, every switch combination chosen by the first byte;
// children are looked at to their last byte and answered clean.
#include <array>
#include <cstdlib>

#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"

namespace {

std::int32_t s_read_child(void* context, scanobject*, kv_scan_result_t*, const void* data,
                          std::uint64_t length, const char*, std::uint8_t, std::int64_t, char*,
                          char*) {
  auto& sum = *static_cast<unsigned*>(context);
  for (std::uint64_t i = 0; i < length; ++i) {
    sum += static_cast<const std::uint8_t*>(data)[i];
  }
  return KV_RESULT_CLEAN;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view bytes{reinterpret_cast<const char*>(data) + 1, size - 1};
  const kv_scanobject_ptr job =
      make_job(bytes, {}, (data[0] & 16) != 0 ? "image/svg+xml" : "text/html");
  constexpr std::array kSwitches{KV_AC_HTML_SCRIPT, KV_AC_HTML_EVENTHANDLER, KV_AC_XML_JAVASCRIPT,
                                 KV_AC_XML_XSLT};
  for (std::size_t i = 0; i < kSwitches.size(); ++i) {
    job->ActiveContent->slots[kSwitches[i]] = data[0] >> i & 1;
  }
  unsigned sum = 0;
  job->embedded = {s_read_child, &sum};
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const std::int32_t code =
      kvactivecontent_html(job.get(), nullptr, reason.data(), error.data(), 0, KV_NO_TIME_LIMIT);
  const bool fits = code == KV_RESULT_CLEAN ||
                    (code == KV_RESULT_ACTIVE_CONTENT && reason[0] != '\0') ||
                    (code == KV_RESULT_FAILED && error[0] != '\0');
  if (!fits || reason.back() != '\0' || error.back() != '\0') {
    std::abort();
  }
  return 0;
}
