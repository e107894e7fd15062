#pragma once
// UUIDs (RFC 4122) from libuuid. Any thread.

#include <array>
#include <cstdint>
#include <string>

using kv_uuid = std::array<std::uint8_t, 16>;

[[nodiscard]] kv_uuid kv_uuid_random();     // version 4
[[nodiscard]] kv_uuid kv_uuid_from_time();  // version 1

// 36 characters, lower case.
[[nodiscard]] std::string kv_uuid_text(const kv_uuid& uuid);
