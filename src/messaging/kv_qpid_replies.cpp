#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_replies.h"

#include <algorithm>
#include <chrono>

#include "logging/log-helper.h"

std::int64_t kv_system_ms() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<kv_ms>(now).count();
}

bool kv_reply_buffer::holds(const std::string& key) const {
  return std::ranges::find(buffer_, key, &kv_received_message::key) != buffer_.end();
}

std::int64_t kv_reply_buffer::front_limit_ms() const {
  return buffer_.front().arrival_ms + KV_UNCLAIMED_REPLY_MS + 1;
}

void kv_reply_buffer::drop_front(std::uint64_t generation, std::uint32_t& credits) {
  credits += buffer_.front().generation == generation ? 1 : 0;
  buffer_.pop_front();
}

bool kv_reply_buffer::drop_stale_front(std::int64_t now_ms, std::uint64_t generation,
                                       std::uint32_t& credits) {
  const kv_received_message& front = buffer_.front();
  if (expired_.erase(front.key) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, "match_reply", "Removing expired reply with correlation_id '%s'",
              proton::to_string(front.id).c_str());
    drop_front(generation, credits);
    return true;
  }
  if (now_ms - front.arrival_ms > KV_UNCLAIMED_REPLY_MS) {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, "match_reply",
              "Removing expired reply with correlation_id '%s' and timestamp '%ld'",
              proton::to_string(front.id).c_str(), static_cast<long>(front.arrival_ms));
    drop_front(generation, credits);
    return true;
  }
  return false;
}

std::optional<kv_received_message> kv_reply_buffer::match_reply(const std::string& wanted,
                                                                std::int64_t now_ms,
                                                                std::uint64_t generation,
                                                                std::uint32_t& credits) {
  while (!buffer_.empty()) {
    if (buffer_.front().key.empty()) {
      KV_LOG_ERROR("Removing reply without correlation_id");
      drop_front(generation, credits);
      return std::nullopt;
    }
    if (!drop_stale_front(now_ms, generation, credits)) {
      break;
    }
  }
  const auto own = std::ranges::find(buffer_, wanted, &kv_received_message::key);
  if (own == buffer_.end()) {
    return std::nullopt;
  }
  KV_LOG_DEBUG("Matched reply with correlation_id '%s'", proton::to_string(own->id).c_str());
  std::optional<kv_received_message> reply{std::move(*own)};
  credits += reply->generation == generation ? 1 : 0;
  buffer_.erase(own);
  return reply;
}

void kv_reply_buffer::drop_unclaimed(const std::unordered_set<std::string>& expected,
                                     std::size_t limit, std::uint64_t generation,
                                     std::uint32_t& credits) {
  const auto is_unclaimed = [&](const kv_received_message& reply) {
    return !expected.contains(reply.key);
  };
  auto unclaimed = static_cast<std::size_t>(std::ranges::count_if(buffer_, is_unclaimed));
  for (; unclaimed > limit; --unclaimed) {
    const auto oldest = std::ranges::find_if(buffer_, is_unclaimed);
    KV_LOG_INFO("Removing unclaimed reply with correlation_id '%s'",
                proton::to_string(oldest->id).c_str());
    expired_.erase(oldest->key);
    credits += oldest->generation == generation ? 1 : 0;
    buffer_.erase(oldest);
  }
}

std::size_t kv_reply_buffer::add_expired(const std::string& key) {
  expired_.insert(key);
  return expired_.size();
}
