#pragma once
// The JSON texts that the worker sends to the control service and to another worker. Values go in
// as they stand, without escaping: names and secrets are made of characters that need none. Pure;
// any thread.

#include <cstdint>
#include <string>

enum class kv_registration { first, repeated };  // the two differ in one blank

[[nodiscard]] std::string kv_register_text(kv_registration which, const char* worker_name,
                                           int primary, const char* secret);
[[nodiscard]] std::string kv_ready_text(const char* secret, const char* worker_name,
                                        const char* own_secret);
[[nodiscard]] std::string kv_shutdown_text(const char* secret);
[[nodiscard]] std::string kv_notice_text(std::int32_t command, const char* worker_name,
                                         int primary);
