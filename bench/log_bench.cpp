// Guards the cost of the trace log on hot paths: a filtered line must stay in the order of an empty
// function call (no formatting, no clock, no lock), and a written line in the order of its file
// operations.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "logging/log-helper.h"

namespace {

__attribute__((noinline)) void empty_function(const char* text, int number) {
  benchmark::DoNotOptimize(text);
  benchmark::DoNotOptimize(number);
}

// A trace file of its own for the life of the object.
class trace_file {
 public:
  explicit trace_file(std::uint32_t level) : path_("/tmp/kv-log-bench-XXXXXX") {
    close(mkstemp(path_.data()));
    log_set_quiet(1);
    log_set_filename(path_.c_str());
    log_set_level(level);
  }
  ~trace_file() {
    log_set_filename(nullptr);
    unlink(path_.c_str());
  }
  trace_file(const trace_file&) = delete;
  trace_file& operator=(const trace_file&) = delete;
  [[nodiscard]] const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

void EmptyFunction(benchmark::State& state) {
  int number = 0;
  for (auto _ : state) {
    empty_function("text", ++number);
  }
}
BENCHMARK(EmptyFunction);

void FilteredLine(benchmark::State& state) {
  const trace_file trace(KV_LOG_LEVEL_ERROR);
  int number = 0;
  for (auto _ : state) {
    ++number;
    KV_LOG_DEBUG("Tag %s has %d attributes", "text", number);
  }
}
BENCHMARK(FilteredLine);

void FilteredTraceScope(benchmark::State& state) {
  const trace_file trace(KV_LOG_LEVEL_ERROR);
  for (auto _ : state) {
    int rc = 0;
    KV_TRACE_SCOPE(rc);
    benchmark::DoNotOptimize(rc);
  }
}
BENCHMARK(FilteredTraceScope);

// The floor under a written line: the same bytes, opened, appended and closed.
void OpenAppendClose(benchmark::State& state) {
  const trace_file trace(KV_LOG_LEVEL_OFF);
  const std::string line(120, 'x');
  for (auto _ : state) {
    const int descriptor = open(trace.path(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    benchmark::DoNotOptimize(write(descriptor, line.data(), line.size()));
    close(descriptor);
  }
}
BENCHMARK(OpenAppendClose);

void WrittenLine(benchmark::State& state) {
  const trace_file trace(KV_LOG_LEVEL_INFO);
  int number = 0;
  for (auto _ : state) {
    ++number;
    KV_LOG_INFO("Tag %s has %d attributes", "text", number);
  }
}
BENCHMARK(WrittenLine);

}  // namespace

BENCHMARK_MAIN();
