// The persistent queue with 0, 1,000 and 9,000 entries waiting. Guards that a pop costs one pass
// over the data directory (at most 1.5 times a bare one at 9,000 entries) and reads no entry but
// its own, and shows what a durable push costs beside its two counts.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "logging/kv_pqueue.h"
#include "memory_pass.h"

namespace {

constexpr double kLargestPopFactor = 1.5;
constexpr int kTurns = 25;
const std::string kRecord(800, 'x');  // about the size of a status record

// A queue of its own with so many entries; not made by pushes, which would sync each of them.
class filled_queue {
 public:
  explicit filled_queue(std::int64_t entries) : folder_("/tmp/kv-queue-bench-XXXXXX") {
    if (mkdtemp(folder_.data()) == nullptr) {
      std::abort();
    }
    queue_.reset(kv_pqueue_open(folder_.c_str(), "q", 100000, 1LL << 40, O_CREAT, 1));
    for (std::int64_t i = 0; i < entries; ++i) {
      std::ofstream(data() + (i % 2 == 0 ? "/L" : "/E") + std::to_string(100000 + i) + ".dat")
          << kRecord;
    }
  }
  ~filled_queue() { std::filesystem::remove_all(folder_); }
  filled_queue(const filled_queue&) = delete;
  filled_queue& operator=(const filled_queue&) = delete;

  [[nodiscard]] kv_pqueue_t* get() const { return queue_.get(); }
  [[nodiscard]] std::string data() const { return folder_ + "/q/data"; }

 private:
  std::string folder_;
  kv_pqueue_ptr queue_;
};

// The floor: every name with its status, and nothing made of it.
void scan_and_recount(const std::string& folder) {
  DIR* const dir = opendir(folder.c_str());
  std::int64_t bytes = 0;
  while (const dirent* entry = readdir(dir)) {
    struct stat status {};
    if (fstatat(dirfd(dir), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode)) {
      bytes += status.st_size;
    }
  }
  closedir(dir);
  benchmark::DoNotOptimize(bytes);
}

void queue_pop(benchmark::State& state) {
  const filled_queue queue(state.range(0));
  const std::string data = queue.data();
  double pop_seconds = 1e9;
  double scan_seconds = 1e9;
  for (auto _ : state) {
    for (int turn = 0; turn < kTurns; ++turn) {  // a slow spell of the machine meets both
      pop_seconds = std::min(pop_seconds, fastest_seconds(1, [&] {
                               const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'L')};
                               benchmark::DoNotOptimize(entry.get());
                             }));
      scan_seconds = std::min(scan_seconds, fastest_seconds(1, [&] { scan_and_recount(data); }));
    }
  }
  state.counters["pop_us"] = pop_seconds * 1e6;
  state.counters["scan_us"] = scan_seconds * 1e6;
  state.counters["of_scan"] = pop_seconds / scan_seconds;
  if (state.range(0) >= 9000 && pop_seconds / scan_seconds > kLargestPopFactor) {
    state.SkipWithError("a pop costs more than 1.5 scans");
  }
}
BENCHMARK(queue_pop)->Arg(0)->Arg(1000)->Arg(9000);

// Wall time: what a push waits for is the disk.
void queue_push(benchmark::State& state) {
  const filled_queue queue(state.range(0));
  for (auto _ : state) {
    if (kv_pqueue_push(queue.get(), 'L', kRecord.data(), kRecord.size()) != 0) {
      state.SkipWithError("push failed");
      break;
    }
    state.PauseTiming();  // and away again, so that the number of entries stays
    const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'L')};
    unlink(entry->path);
    state.ResumeTiming();
  }
  state.counters["pushes/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(queue_push)->Arg(0)->Arg(1000)->Arg(9000)->UseRealTime();

// One record from push to removal, as producer and dispatcher take it, without any network.
void queue_deliver(benchmark::State& state) {
  const filled_queue queue(state.range(0));
  for (auto _ : state) {
    if (kv_pqueue_push(queue.get(), 'E', kRecord.data(), kRecord.size()) != 0) {
      state.SkipWithError("push failed");
      break;
    }
    const kv_pqueue_data_ptr entry{kv_pqueue_pop(queue.get(), 'E')};
    unlink(entry->path);
  }
  state.counters["records/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(queue_deliver)->Arg(0)->Arg(1000)->Arg(9000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
