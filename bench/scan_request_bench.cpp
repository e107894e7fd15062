// What a scan request costs beside its JSON: guards against work per key, per row or per tenant
// creeping into the way from the request's text to the reply's. The bare round does nothing but
// parse the same text and build and print the same reply with json-c; the ratio of the two is the
// figure to hold.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "bare_reply.h"
#include "common/kv_json.h"
#include "support/scan_requests.h"
#include "support/service_fixture.h"

namespace {

// A client's request of 2 KB: every key, with lists of a usual length.
std::string s_request_text() {
  const kv_json_ptr request = make_scan_request();
  std::string list;
  while (list.size() < 300) {
    list += "application/x-type-" + std::to_string(list.size()) + ";";
  }
  for (const char* key : {"SCANMIMETYPES", "BLOCKMIMETYPES"}) {
    set_text(request, key, list);
  }
  return json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_SPACED);
}

kv_json_ptr s_parse(const std::string& text) {
  return kv_json_parse(text, __func__, "bench", __LINE__);
}

void bare_json(benchmark::State& state) {
  const std::string text = s_request_text();
  for (auto _ : state) {
    const kv_json_ptr request = s_parse(text);
    const kv_text_ptr reply{bare_scan_reply()};
    benchmark::DoNotOptimize(reply.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(bare_json);

// range(0): tenants with a definition, the request's own stored last.
void scan_request(benchmark::State& state) {
  const std::string text = s_request_text();
  service_fixture service;
  service.answer_definition(R"([["EXECUTABLE", 1], ["FLASH", 1], ["GIFAR", 0], ["HTML_SCRIPT", 1],
    ["HTML_EVENTHANDLER", 1], ["PDF_JAVASCRIPT", 1], ["CSV_INJECTION", 0]])");
  for (std::int64_t i = 1; i < state.range(0); ++i) {
    static_cast<void>(kvactivecontent_load_ac_definition(
        &service.config, service.state(), ("tenant-" + std::to_string(i)).c_str(), "S1"));
  }
  for (auto _ : state) {
    const kv_json_ptr request = s_parse(text);
    const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
    kv_worker_handle_scan_request(&service.config, pair.get(), request.get(), &service.thread);
    benchmark::DoNotOptimize(pair->reply->json);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(scan_request)->Arg(1)->Arg(10'000);

// Rows of a recursive scan: a page with range(0) children, each blocked for a reason of its own.
void summary(benchmark::State& state) {
  kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  for (auto _ : state) {
    state.PauseTiming();
    const kv_scan_result_ptr result{kv_worker_new_scan_result()};
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      const std::string number = std::to_string(i);
      row->return_code = i == 0 ? 0 : -202;
      row->file_name = strdup(i == 0 ? "page.html" : ("page.html/data-url-" + number).c_str());
      row->blocking_reason = strdup(i == 0 ? "" : ("\"reason " + number + "\" detected").c_str());
      static_cast<void>(kv_worker_add_file_scan_result(result.get(), row.get()));
      row.reset(kv_worker_new_file_scan_result());
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(kv_worker_create_scan_results_summary(result.get()));
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(summary)->RangeMultiplier(2)->Range(1000, 8000)->Complexity();

}  // namespace

BENCHMARK_MAIN();
