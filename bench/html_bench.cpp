// The markup scan over pages in which nothing is found, against a copy of the same bytes and
// against its plain form, and over hostile inputs of growing size. Guards the single literal pass
// (at least 0.12 of memcpy at 1 MB), the walk that steps over tags (0.022; 0.08 without a marker;
// 70 times the plain form), the cut at the first NUL, and that no input takes much more than twice
// the time for twice the bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "activecontent/markup_matcher.h"
#include "hostile_family.h"
#include "memory_pass.h"
#include "support/markup_product.h"

namespace {

const markup_reference_job kJob{.html_eventhandler = true, .html_script = true};

std::int32_t take_child(void*, scanobject*, kv_scan_result_t*, const void* data, std::uint64_t,
                        const char*, std::uint8_t, std::int64_t, char*, char*) {
  benchmark::DoNotOptimize(data);
  return KV_RESULT_CLEAN;
}

void scan_at(const std::string& text, kv_simd_level level) {
  const kv_scanobject_ptr job = make_markup_job(kJob, text);
  job->embedded = {take_child, nullptr};
  char reason[KV_REASON_SIZE] = {};
  char error[KV_REASON_SIZE] = {};
  if (kv_scan_markup(markup_environment_at(level), job.get(), nullptr, reason, error, 0,
                     KV_NO_TIME_LIMIT) != KV_RESULT_CLEAN) {
    std::abort();
  }
}

void scan(const std::string& text) {
  scan_at(text, kv_best_simd_level());
}

// About 30 tags per KB; "description" holds a banned word, so that the tags are walked.
std::string page(std::size_t size) {
  constexpr std::string_view kParts[] = {
      "<p class=\"text\">The worker reads each request from its queue, and sends the reply when "
      "the value is known.</p>\n",
      "<a href=\"page7.html\" title='one'>a section with a number</a> and some more words, ",
      "<div id=\"main\">\n  <span class=\"c\">the table holds what the system was told</span>"
      "</div>\n",
      "<li>lorem ipsum dolor sit amet, of a table &amp; its rows</li>\n",
      "<td><code>value</code></td><td>what this file is about, at some length</td>"};
  std::string text = "<!DOCTYPE html>\n<meta name=\"description\" content=\"a page\">\n";
  for (std::size_t i = 0; text.size() < size; i = i * 5 + 3) {
    text += kParts[(i >> 3) % std::size(kParts)];
  }
  return text;
}

void literal_pass(benchmark::State& state, kv_simd_level level) {
  measure_share_of_copy(state, page(1 << 20), [level](const std::string& text) {
    kv_literal_matcher matcher(text, level);
    for (kv_literal_hit hit; matcher.next(hit);) {
      benchmark::DoNotOptimize(hit);
    }
  });
}

void walked(benchmark::State& state, kv_simd_level level) {
  measure_share_of_copy(state, page(static_cast<std::size_t>(state.range(0))),
                        [level](const std::string& text) { scan_at(text, level); });
}

void without_marker(benchmark::State& state, kv_simd_level level) {
  const std::string text =
      repeated("", "<p class=\"text\">Plain text runs on, concerning no one.</p> ", 1 << 20, "");
  measure_share_of_copy(state, text, [level](const std::string& bytes) { scan_at(bytes, level); });
}

void image(benchmark::State& state) {
  const std::string text = std::string("\x89PNG\r\n\x1a\n\0\0", 10) + std::string(1 << 20, 'x');
  for (auto _ : state) {
    scan(text);
  }
}

// How many times the plain form's time the scan is worth.
void plain_form(benchmark::State& state) {
  const std::string text = page(1 << 18);
  double plain = 1e9;
  double fast = 1e9;
  for (auto _ : state) {
    fast = std::min(fast, fastest_seconds(20, [&] { scan(text); }));
    plain = std::min(plain, fastest_seconds(1, [&] {
                       benchmark::DoNotOptimize(markup_reference_scan(
                           kJob, text, [](const markup_child&) { return 0; }));
                     }));
  }
  state.counters["times_plain"] = plain / fast;
}

constexpr hostile_family kFamilies[] = {
    {"ampersands", "script", "&", ""},
    {"ampersands_before_semicolon", "script", "&", ";"},
    {"dense_references", "script", "&lt;b&gt;", ""},
    {"long_number", "script&#", "1", ";"},
    {"many_long_numbers", "script", "&#11111111111111111111111111111", ""},
    {"unclosed_tag", "script<a ", "b ", ""},
    {"unclosed_quote", "script<a b=\"", "c>", ""},
    {"quotes", "script<a ", "\"", ">"},
    {"backslash_quotes", "script<a ", "\\\"", ">"},
    {"unclosed_comment", "script<!--", "->!-", ""},
    {"hyphens", "script<!--", "-", ""},
    {"hyphens_apart", "script<!--", "-\n>", ""},
    {"less_than", "script", "<", ""},
    {"comment_openings", "script", "<!--", ""},
    {"bangs", "script<a", "!-\n", ">"},
    {"comments", "script", "<!---->", ""},
    {"line_feeds", "script<a", "\n", ">"},
    {"joined_lines", "script<a", "b\n", ">"},
    {"huge_tag", "script<a ", "description=b onfocu ", ">"},
    {"huge_tag_of_words", "script<a ", "xscript ", ">"},
    {"huge_tag_of_handlers", "script<a ", "-onclick=b ", ">"},
    {"huge_tag_of_invocations", "script<a ", "javascript: ", "fontscript>"},
    {"tiny_tags", "script", "<a>", ""},
    {"tiny_tags_of_lines", "script", "<a\nb>", ""},
    {"excepted_tags", "", "<font script>", ""},
    {"data_urls", "script", "<a b='data:,c'>", ""},
    {"data_urls_in_one_tag", "script<a ", "b='data:,c' ", ">"},
    {"data_url_positions", "script<a b='", "data: ", "'>"},
    {"long_data_url", "script<a b='data:;base64,", "QUJD", "'>"},
    {"srcdocs", "script<a ", "srcdoc='b' ", ">"},
    {"srcdoc_positions", "script<a ", "srcdoc   ", ">"},
};

// Time per byte at 4 MB against 256 KB.
void per_byte(benchmark::State& state) {
  const std::string small = page(1 << 18);
  const std::string large = page(1 << 22);
  double small_seconds = 1e9;
  double large_seconds = 1e9;
  for (auto _ : state) {
    small_seconds = std::min(small_seconds, fastest_seconds(20, [&] { scan(small); }));
    large_seconds = std::min(large_seconds, fastest_seconds(5, [&] { scan(large); }));
  }
  state.counters["4MB/256KB"] = large_seconds / small_seconds * static_cast<double>(small.size()) /
                                static_cast<double>(large.size());
}

}  // namespace

int main(int argc, char** argv) {
  for (const kv_simd_level level : available_simd_levels()) {
    const std::string at = "/level_" + std::to_string(static_cast<int>(level));
    benchmark::RegisterBenchmark(("literal_pass" + at).c_str(), literal_pass, level);
    benchmark::RegisterBenchmark(("walked" + at).c_str(), walked, level)
        ->Arg(1 << 14)
        ->Arg(1 << 20);
    benchmark::RegisterBenchmark(("without_marker" + at).c_str(), without_marker, level);
  }
  benchmark::RegisterBenchmark("image", image);
  benchmark::RegisterBenchmark("plain_form", plain_form)->Iterations(1);
  benchmark::RegisterBenchmark("per_byte", per_byte)->Iterations(3);
  register_hostile_families(kFamilies, scan);
  return run_benchmarks(argc, argv);
}
