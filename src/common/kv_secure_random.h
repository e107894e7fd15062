#pragma once
// Unpredictable texts, for secrets and for names that nobody else may guess. Any thread.

#include <cstddef>
#include <string>

// n characters drawn evenly from 0-9, a-z and A-Z by libsodium's generator. Empty when the
// generator cannot be started.
[[nodiscard]] std::string kv_secure_random_text(std::size_t n);
