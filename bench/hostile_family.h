#pragma once
// Inputs made to be slow, of any size: a detector must take about twice the time for twice the
// bytes of each. One table of them per benchmark program.

#include <benchmark/benchmark.h>

#include <span>
#include <string>
#include <string_view>

#include "memory_pass.h"

// begin, then unit over and over, then end.
struct hostile_family {
  const char* name;
  std::string_view begin;
  std::string_view unit;
  std::string_view end;
};

inline std::string repeated(std::string_view begin, std::string_view unit, std::size_t size,
                            std::string_view end) {
  std::string text(begin);
  while (text.size() + end.size() < size) {
    text += unit;
  }
  return text += end;
}

// One benchmark for each, beginning with 256 KB. The families outlive the run.
template <class Work>
void register_hostile_families(std::span<const hostile_family> families, Work work) {
  for (const hostile_family& family : families) {
    benchmark::RegisterBenchmark((std::string("doublings/") + family.name).c_str(),
                                 [&family, work](benchmark::State& state) {
                                   measure_doublings(
                                       state, 256 << 10,
                                       [&family](std::size_t size) {
                                         return repeated(family.begin, family.unit, size,
                                                         family.end);
                                       },
                                       work);
                                 })
        ->Iterations(1);
  }
}

// A main function's rest.
inline int run_benchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
