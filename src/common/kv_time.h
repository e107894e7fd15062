#pragma once
// Millisecond time stamps on the monotonic clock. Pure reads of the clock; any thread.

#include <cstdint>

// Now: seconds * 1000 + nanoseconds / 1000000, truncated.
[[nodiscard]] std::uint64_t kv_current_time_ms();

[[nodiscard]] std::uint64_t kv_elapsed_time_ms(std::uint64_t start);

// What is left of limit, 0 once it is used up. The elapsed time is taken modulo 2^32, so a wait of
// more than 49 days starts over.
[[nodiscard]] std::uint32_t kv_remaining_time_ms(std::uint64_t start, std::uint32_t limit);

// True when limit milliseconds or more have passed since start.
[[nodiscard]] bool kv_timeout_expired(std::uint64_t start, std::uint64_t limit);
