// A reply of another service, from its JSON text to the reply that it becomes part of. What is no
// clean reply must not come out as one.
#include <cstdlib>
#include <string_view>

#include "common/kv_json.h"
#include "messaging/kvhlp_replies.h"
#include "worker/kv_worker_RecursiveScan_service.h"

namespace {

constexpr const char* kObject = "page/data-url-1";

void s_require(bool held) {
  if (!held) {
    std::abort();
  }
}

void s_check_names(const kv_scan_result_t& result) {
  for (std::int32_t i = 0; i < result.file_count; ++i) {
    s_require(std::string_view(result.files[i]->file_name).starts_with(kObject));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text{reinterpret_cast<const char*>(data), size};
  const kv_json_ptr reply = kv_json_parse(text, __func__, "fuzz", __LINE__);
  if (!reply) {
    return 0;
  }
  const kv_scan_result_ptr latest{kv_worker_new_scan_result()};
  const kv_scan_result_ptr consolidated{kv_worker_new_scan_result()};
  const kv_service_answer_t answer =
      kv_recursive_read_reply(reply.get(), "service", kObject, latest.get());
  std::int32_t code = -1;
  const bool is_clean = kv_reply_get_return_code(reply.get(), code) && code == 0;
  s_require((answer.code == KV_RESULT_CLEAN) == is_clean);
  s_require(is_clean || !answer.text.empty());
  s_check_names(*latest);
  // Twice: the second merge finds every row of the first, and adds none.
  s_require(kv_worker_merge_scanresults(consolidated.get(), latest.get()) == 0);
  const std::int32_t rows = consolidated->file_count;
  s_require(kv_worker_merge_scanresults(consolidated.get(), latest.get()) == 0);
  s_require(consolidated->file_count == rows && rows <= latest->file_count);
  s_require(kv_worker_create_scan_results_summary(consolidated.get()) == 0);
  const kv_text_ptr rendered{kv_worker_create_scan_reply(consolidated.get())};
  s_require(rendered != nullptr);
  return 0;
}
