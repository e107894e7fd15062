#include "support/markup_product.h"

#include <array>

#include "support/job_builder.h"

namespace {

struct recorder {
  const markup_answer& answer;
  std::vector<markup_child> children{};
};

std::int32_t s_record(void* context, scanobject* job, kv_scan_result_t* consolidated,
                      const void* data, std::uint64_t length, const char* name, std::uint8_t flag,
                      std::int64_t time_left_ms, char* reason, char* error) {
  static_cast<void>(job);
  static_cast<void>(consolidated);
  static_cast<void>(flag);
  static_cast<void>(time_left_ms);
  static_cast<void>(reason);
  static_cast<void>(error);
  auto& record = *static_cast<recorder*>(context);
  record.children.push_back({name, std::string(static_cast<const char*>(data), length)});
  return record.answer(record.children.back());
}

}  // namespace

kv_scanobject_ptr make_markup_job(const markup_reference_job& job, std::string_view bytes) {
  kv_scanobject_ptr result = make_job(bytes, {}, job.mime_type.c_str(), "", "", job.name.c_str());
  const auto set = [&](kv_ac_slot slot, bool on) {
    result->ActiveContent->slots[slot] = on ? 1 : 0;
  };
  set(KV_AC_HTML_EVENTHANDLER, job.html_eventhandler);
  set(KV_AC_HTML_SCRIPT, job.html_script);
  set(KV_AC_XML_JAVASCRIPT, job.xml_javascript);
  set(KV_AC_XML_XSLT, job.xml_xslt);
  return result;
}

markup_outcome markup_product_scan(const markup_reference_job& job, std::string_view bytes,
                                   const markup_answer& answer,
                                   const kv_markup_environment& environment,
                                   std::int64_t time_left_ms) {
  const kv_scanobject_ptr scan_job = make_markup_job(job, bytes);
  recorder record{answer};
  scan_job->embedded = {s_record, &record};
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  markup_outcome out;
  out.code = kv_scan_markup(environment, scan_job.get(), nullptr, reason.data(), error.data(), 0,
                            time_left_ms);
  out.reason = reason.data();
  out.error = error.data();
  out.children = std::move(record.children);
  return out;
}

kv_markup_environment markup_environment_at(kv_simd_level level) {
  kv_markup_environment environment = kv_markup_default_environment();
  environment.level = level;
  return environment;
}
