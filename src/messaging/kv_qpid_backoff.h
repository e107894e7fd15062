#pragma once
// Pauses between attempts to connect: none before the first, then a random time between the
// shortest pause and a bound that doubles up to the longest. Pure; one thread at a time.

#include <algorithm>
#include <chrono>
#include <cstdint>

class kv_qpid_backoff {
 public:
  using ms = std::chrono::milliseconds;
  // Returns a number below the given one (which is at least 1), evenly spread.
  using random_below = std::uint32_t (*)(std::uint32_t);

  kv_qpid_backoff(ms shortest, ms longest, random_below random)
      : shortest_(std::max(shortest, ms{1})),
        longest_(std::max(longest, shortest_)),
        random_(random) {}

  void reset() { bound_ = ms{0}; }

  [[nodiscard]] ms next() {
    const ms previous = bound_;
    bound_ = bound_ == ms{0} ? shortest_ : std::min(longest_, bound_ * 2);
    if (previous == ms{0}) {
      return ms{0};
    }
    const auto spread = static_cast<std::uint32_t>((previous - shortest_).count());
    return shortest_ + ms{random_(spread + 1)};
  }

 private:
  ms shortest_;
  ms longest_;
  random_below random_;
  ms bound_{0};  // of the next pause; 0: no attempt has failed yet
};
