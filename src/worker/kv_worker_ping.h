#pragma once
// Asks a service whether it is there. Blocks for at most tries times (timeout + pause); any thread.

#include <cstdint>

#include "messaging/kv_amqp_client.h"

// 0 when the address answers, else -1. The broker's own address counts as answering at once.
[[nodiscard]] int kv_worker_ping(kv_amqp_config* broker, const char* address, std::int32_t tries,
                                 std::int32_t timeout_ms, std::uint32_t pause_ms);
