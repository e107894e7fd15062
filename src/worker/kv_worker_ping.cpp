#include "worker/kv_worker_ping.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <thread>

#include "logging/log-helper.h"
#include "worker/kv_worker.h"

namespace {

constexpr std::string_view kBrokerAddress = "kv-av-broker";

bool s_answers(kv_amqp_config* broker, const char* address, std::int32_t timeout_ms) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "{ \"Command\" : %d }", KV_COMMAND_PING);
  // Without retries of the request itself: the tries are counted here.
  const kv_json_ptr reply{
      kv_amqp_send_recv_json(broker, address, text.data(), timeout_ms, 0, nullptr)};
  return reply != nullptr;
}

}  // namespace

int kv_worker_ping(kv_amqp_config* broker, const char* address, std::int32_t tries,
                   std::int32_t timeout_ms, std::uint32_t pause_ms) {
  if (address == kBrokerAddress) {
    return 0;
  }
  KV_LOG_TRACE("Pinging %s", address);
  for (std::int32_t attempt = 0; attempt < tries; ++attempt) {
    if (s_answers(broker, address, timeout_ms)) {
      KV_LOG_TRACE("Got reply from %s", address);
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
  }
  return -1;
}
