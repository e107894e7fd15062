#pragma once
// Speed as a share of a plain memory copy of the same bytes, taken in turns in the same run: the
// machine's own speed changes by half between runs, the share does not. One thread, CPU time.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <string>

inline double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The fastest of several runs: what others do on the machine only ever adds.
template <class Work>
double fastest_seconds(int runs, Work&& work) {
  double best = 1e9;
  for (int i = 0; i < runs; ++i) {
    const double begin = thread_cpu_seconds();
    work();
    best = std::min(best, thread_cpu_seconds() - begin);
  }
  return best;
}

// Runs work over the text and reports it as a share of a copy of the text.
template <class Work>
void measure_share_of_copy(benchmark::State& state, const std::string& text, Work&& work) {
  std::string copy(text.size(), '\0');
  double work_seconds = 1e9;
  double copy_seconds = 1e9;
  for (auto _ : state) {
    work_seconds = std::min(work_seconds, fastest_seconds(1, [&] { work(text); }));
    state.PauseTiming();
    copy_seconds = std::min(copy_seconds, fastest_seconds(3, [&] {
                              std::memcpy(copy.data(), text.data(), text.size());
                              benchmark::DoNotOptimize(copy.data());
                              benchmark::ClobberMemory();
                            }));
    state.ResumeTiming();
  }
  const auto size = static_cast<double>(text.size());
  state.counters["GB/s"] = size / work_seconds * 1e-9;
  state.counters["of_memcpy"] = copy_seconds / work_seconds;
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

// Runs work over texts of n, 2n and 4n bytes and reports what each doubling costs; linear is 2. The
// sizes are measured in turns, so that a slow spell of the machine meets all of them.
template <class Make, class Work>
void measure_doublings(benchmark::State& state, std::size_t size, Make&& make, Work&& work) {
  constexpr double kLargestFactor = 2.3;
  constexpr int kTurns = 15;
  const std::array<std::string, 3> texts{make(size), make(2 * size), make(4 * size)};
  std::array<double, 3> seconds{1e9, 1e9, 1e9};
  for (auto _ : state) {
    for (int turn = 0; turn < kTurns; ++turn) {
      for (std::size_t i = 0; i < texts.size(); ++i) {
        seconds[i] = std::min(seconds[i], fastest_seconds(1, [&] { work(texts[i]); }));
      }
    }
  }
  state.counters["us_n"] = seconds[0] * 1e6;
  state.counters["2n/n"] = seconds[1] / seconds[0];
  state.counters["4n/2n"] = seconds[2] / seconds[1];
  if (std::max(seconds[1] / seconds[0], seconds[2] / seconds[1]) > kLargestFactor) {
    state.SkipWithError("worse than linear");
  }
}
