// The check for formula injection over tables in which nothing is found, against a copy of the same
// bytes, and over hostile inputs of growing size. Guards the passes over marked bytes: at least
// 0.07 of memcpy on a table of 1 MB, and no input for which twice the bytes take much more than
// twice the time.
#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "activecontent/kvactivecontent_detectors.h"
#include "memory_pass.h"
#include "support/job_builder.h"

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

std::string repeated(std::string_view begin, std::string_view unit, std::size_t size,
                     std::string_view end) {
  std::string text(begin);
  while (text.size() < size) {
    text += unit;
  }
  return text + std::string(end);
}

void csv_table(benchmark::State& state) {
  measure_share_of_copy(state, table(static_cast<std::size_t>(state.range(0)), ""), scan);
}
BENCHMARK(csv_table)->Arg(16 << 10)->Arg(1 << 20)->Arg(8 << 20);

void csv_quoted_table(benchmark::State& state) {
  measure_share_of_copy(state, table(static_cast<std::size_t>(state.range(0)), "\""), scan);
}
BENCHMARK(csv_quoted_table)->Arg(1 << 20);

using family = std::function<std::string(std::size_t)>;
const std::vector<std::pair<const char*, family>> kFamilies{
    {"empty_lines", [](std::size_t n) { return repeated("a,b\n", "\n", n, "1,2"); }},
    {"empty_lines_and_quotes",
     [](std::size_t n) { return repeated("a,b\n", "\n'\n\n'\n", n, "1,2"); }},
    {"empty_lines_for_all_candidates",
     [](std::size_t n) { return repeated("a,b;c|d\te\n", "\n", n, "1,2;3|4\t5"); }},
    {"double_quotes", [](std::size_t n) { return repeated("a,b\n", "\"", n, ",2"); }},
    {"single_quotes", [](std::size_t n) { return repeated("a,b\n", "'", n, ",2"); }},
    {"quotes_in_turn", [](std::size_t n) { return repeated("a,b\n", "\"'", n, ",2"); }},
    {"backslashes", [](std::size_t n) { return repeated("a,b\n", "\\", n, ",2"); }},
    {"white_space", [](std::size_t n) { return repeated("a,b\n1,", " ", n, "x"); }},
    {"white_space_behind_a_formula",
     [](std::size_t n) { return repeated("a,b\n1,-5", " ", n, ""); }},
    {"white_space_cells", [](std::size_t n) { return repeated("a", ", \t\v", n, ""); }},
    {"delimiters", [](std::size_t n) { return repeated("a", ",", n, ""); }},
    {"one_line_without_delimiter", [](std::size_t n) { return repeated("", "x", n, ""); }},
    {"one_line_in_quotes", [](std::size_t n) { return repeated("'", ",;|", n, ""); }},
    {"short_lines", [](std::size_t n) { return repeated("a,b\n", "x\n", n, "1,2"); }},
    {"long_number", [](std::size_t n) { return repeated("a,-", "1", n, ""); }},
    {"many_numbers", [](std::size_t n) { return repeated("a", ",-5", n, ""); }},
    {"slashes", [](std::size_t n) { return repeated("a,b\n", "/\r", n, ""); }},
    {"almost_statements", [](std::size_t n) { return repeated("a,b\n", "01,x/ \n", n, ""); }},
    {"slashes_in_one_line", [](std::size_t n) { return repeated("01,", "/x", n, ""); }},
};

void csv_family(benchmark::State& state) {
  const auto& [name, make] = kFamilies[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(name);
  measure_doublings(state, 256 << 10, make, scan);
}
BENCHMARK(csv_family)->DenseRange(0, static_cast<int>(kFamilies.size()) - 1)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
