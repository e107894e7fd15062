// The check for formula injection over tables in which nothing is found, against a copy of the same
// bytes, and over hostile inputs of growing size. Guards the passes over marked bytes: at least
// 0.07 of memcpy on a table of 1 MB, and no input for which twice the bytes take much more than
// twice the time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory_resource>
#include <string>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "hostile_family.h"
#include "memory_pass.h"
#include "support/job_builder.h"
#include "support/simd_levels.h"

namespace {

void scan(const std::string& text) {
  const auto job = make_job(text, {KV_AC_CSV_INJECTION});
  char reason[KV_REASON_SIZE] = {};
  char error[KV_REASON_SIZE] = {};
  if (kvactivecontent_csv_command(job.get(), reason, error) != 0) {
    std::abort();
  }
  benchmark::DoNotOptimize(reason);
}

// In a text in which nothing is found no cell gets as far as the pattern.
class no_pattern : public kv_csv_pattern {
 public:
  int compile() override { return 0; }
  kv_csv_match match(const char*) override { std::abort(); }
};

void scan_at(const std::string& text, kv_simd_level level) {
  no_pattern pattern;
  char reason[KV_REASON_SIZE] = {};
  char error[KV_REASON_SIZE] = {};
  if (kv_csv_check(text, pattern, level, *std::pmr::new_delete_resource(), reason, error) != 0) {
    std::abort();
  }
  benchmark::DoNotOptimize(reason);
}

// Rows with a negative number each. The last column is none: a cell reaches over the line feed.
std::string table(std::size_t size, const char* quote) {
  std::string text = "id,name,city,amount,date,remark\n";
  for (int row = 1; text.size() < size; ++row) {
    text += std::to_string(row) + "," + quote + "Customer " + std::to_string(row * 7919 % 10007) +
            quote + "," + quote + "Springfield" + quote + ",-" + std::to_string(row % 1000) +
            ".50,2024-05-" + std::to_string(10 + row % 20) + "," + quote + "paid in full" + quote +
            "\n";
  }
  return text;
}

void csv_table(benchmark::State& state, kv_simd_level level, const char* quote) {
  measure_share_of_copy(state, table(static_cast<std::size_t>(state.range(0)), quote),
                        [level](const std::string& text) { scan_at(text, level); });
}

constexpr hostile_family kFamilies[] = {
    {"empty_lines", "a,b\n", "\n", "1,2"},
    {"empty_lines_and_quotes", "a,b\n", "\n'\n\n'\n", "1,2"},
    {"empty_lines_for_all_candidates", "a,b;c|d\te\n", "\n", "1,2;3|4\t5"},
    {"double_quotes", "a,b\n", "\"", ",2"},
    {"single_quotes", "a,b\n", "'", ",2"},
    {"quotes_in_turn", "a,b\n", "\"'", ",2"},
    {"backslashes", "a,b\n", "\\", ",2"},
    {"white_space", "a,b\n1,", " ", "x"},
    {"white_space_behind_a_formula", "a,b\n1,-5", " ", ""},
    {"white_space_cells", "a", ", \t\v", ""},
    {"delimiters", "a", ",", ""},
    {"one_line_without_delimiter", "", "x", ""},
    {"one_line_in_quotes", "'", ",;|", ""},
    {"short_lines", "a,b\n", "x\n", "1,2"},
    {"long_number", "a,-", "1", ""},
    {"many_numbers", "a", ",-5", ""},
    {"slashes", "a,b\n", "/\r", ""},
    {"almost_statements", "a,b\n", "01,x/ \n", ""},
    {"slashes_in_one_line", "01,", "/x", ""},
};

}  // namespace

int main(int argc, char** argv) {
  for (const kv_simd_level level : available_simd_levels()) {
    const std::string at = "/level_" + std::to_string(static_cast<int>(level));
    benchmark::RegisterBenchmark(("table" + at).c_str(), csv_table, level, "")
        ->Arg(16 << 10)
        ->Arg(1 << 20)
        ->Arg(8 << 20);
    benchmark::RegisterBenchmark(("quoted_table" + at).c_str(), csv_table, level, "\"")
        ->Arg(1 << 20);
  }
  register_hostile_families(kFamilies, scan);
  return run_benchmarks(argc, argv);
}
