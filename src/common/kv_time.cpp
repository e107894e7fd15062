#include "common/kv_time.h"

#include <ctime>

std::uint64_t kv_current_time_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

std::uint64_t kv_elapsed_time_ms(std::uint64_t start) {
  return kv_current_time_ms() - start;
}

std::uint32_t kv_remaining_time_ms(std::uint64_t start, std::uint32_t limit) {
  const auto elapsed = static_cast<std::uint32_t>(kv_elapsed_time_ms(start));
  return elapsed > limit ? 0 : limit - elapsed;
}

bool kv_timeout_expired(std::uint64_t start, std::uint64_t limit) {
  return limit <= kv_elapsed_time_ms(start);
}
