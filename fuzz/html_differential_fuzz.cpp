// The markup scan against its plain form: any input, any switches, children that answer anything
// must give one outcome on both, at every level of vector code. The first byte chooses switches and
// answers.
#include <cstdlib>

#include "logging/log-helper.h"
#include "support/markup_product.h"
#include "support/markup_reference.h"

namespace {

constexpr std::size_t kLongestInput = 1 << 16;  // the plain form takes its time

markup_reference_job s_job(unsigned choice) {
  markup_reference_job job;
  job.html_script = (choice & 1) != 0;
  job.html_eventhandler = (choice & 2) != 0;
  job.xml_javascript = (choice & 4) != 0;
  job.xml_xslt = (choice & 8) != 0;
  job.mime_type = (choice & 16) != 0 ? "image/svg+XML" : "text/html";
  return job;
}

// The answer follows from the child, so that it is the same for both.
std::int32_t s_answer(unsigned choice, const markup_child& child) {
  if ((choice & 32) == 0 || child.content.size() % 3 != 0) {
    return 0;
  }
  return (choice & 64) != 0 ? -202 : -1000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > kLongestInput) {
    return 0;
  }
  const unsigned choice = data[0];
  const std::string_view bytes{reinterpret_cast<const char*>(data) + 1, size - 1};
  const markup_reference_job job = s_job(choice);
  const markup_answer answer = [choice](const markup_child& child) {
    return s_answer(choice, child);
  };
  const markup_outcome expected = markup_reference_scan(job, bytes, answer);
  for (const kv_simd_level level : available_simd_levels()) {
    if (markup_product_scan(job, bytes, answer, markup_environment_at(level)) != expected) {
      std::abort();
    }
  }
  return 0;
}
