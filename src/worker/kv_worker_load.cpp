#include "worker/kv_worker_load.h"

#include <algorithm>
#include <span>

#include "worker/kv_worker.h"
#include "worker/kv_worker_limits.h"

namespace {

// Percentage of busy threads, or KV_NO_SAMPLE for a list without threads.
std::int32_t s_sample(zlist_t* threads) {
  std::int32_t all = 0;
  std::int32_t busy = 0;
  for (void* item = zlist_first(threads); item != nullptr; item = zlist_next(threads)) {
    const auto& thread = *static_cast<worker_thread_parameters*>(item);
    ++all;
    busy += thread.current_status.load(std::memory_order_relaxed) == KV_THREAD_BUSY ? 1 : 0;
  }
  return all == 0 ? KV_NO_SAMPLE : busy * 100 / all;
}

}  // namespace

void kvctrl_initialize_load_sample_array(std::int32_t* samples, std::int32_t count) {
  std::fill_n(samples, std::max(count, 0), KV_NO_SAMPLE);
}

std::int32_t kvworker_get_load(zlist_t* threads, std::int32_t count, std::int32_t* samples) {
  const std::int32_t sample = s_sample(threads);
  if (sample == KV_NO_SAMPLE || count < 1) {
    return KV_NO_SAMPLE;
  }
  const std::span all{samples, static_cast<std::size_t>(count)};
  bool full = true;
  std::int64_t sum = sample;
  for (std::size_t i = 1; i < all.size(); ++i) {
    full = full && all[i] != KV_NO_SAMPLE;
    sum += all[i];
    all[i - 1] = all[i];
  }
  all.back() = sample;
  return full ? static_cast<std::int32_t>(sum / count) : KV_NO_SAMPLE;
}
