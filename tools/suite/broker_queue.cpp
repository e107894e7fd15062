#include "broker_queue.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kv_suite {
namespace {

bool s_expired(const broker_message& message, broker_clock::time_point now) {
  return message.expiry && *message.expiry <= now;
}

}  // namespace

broker_message_ptr make_broker_message(std::string encoded, const message_sections& sections,
                                       broker_clock::time_point now) {
  auto message = std::make_shared<broker_message>();
  message->encoded = std::move(encoded);
  message->bare_offset = sections.bare_offset;
  message->header = sections.header;
  // A time-to-live of 0 is taken as none, as the common clients write it.
  if (message->header.ttl_ms == 0U)
    message->header.ttl_ms.reset();
  if (message->header.ttl_ms) {
    message->expiry = now + std::chrono::milliseconds(*message->header.ttl_ms);
  }
  return message;
}

message_header header_to_send(const broker_message& message, broker_clock::time_point now) {
  message_header header = message.header;
  if (message.expiry) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*message.expiry - now).count();
    header.ttl_ms = static_cast<std::uint32_t>(std::max<std::int64_t>(left, 1));
  }
  return header;
}

bool broker_queue::push(broker_message_ptr message) {
  const std::size_t size = message->encoded.size();
  if (held_messages_ >= limits_.messages || size > limits_.bytes ||
      held_bytes_ > limits_.bytes - size) {
    return false;
  }
  ++held_messages_;
  held_bytes_ += size;
  if (message->expiry && (!earliest_expiry_ || *message->expiry < *earliest_expiry_)) {
    earliest_expiry_ = message->expiry;
  }
  message->sequence = next_sequence_++;
  waiting_.emplace_hint(waiting_.end(), message->sequence, std::move(message));
  return true;
}

broker_message_ptr broker_queue::take(broker_clock::time_point now) {
  while (!waiting_.empty()) {
    broker_message_ptr message = std::move(waiting_.begin()->second);
    waiting_.erase(waiting_.begin());
    if (!s_expired(*message, now))
      return message;
    finish(*message);
  }
  return nullptr;
}

void broker_queue::put_back(const broker_message_ptr& message, put_back_as how) {
  if (how != put_back_as::released &&
      message->header.delivery_count < std::numeric_limits<std::uint32_t>::max()) {
    ++message->header.delivery_count;
  }
  if (how == put_back_as::failed_to_end)
    message->sequence = next_sequence_++;
  if (message->expiry && (!earliest_expiry_ || *message->expiry < *earliest_expiry_)) {
    earliest_expiry_ = message->expiry;
  }
  waiting_.emplace(message->sequence, message);
}

void broker_queue::finish(const broker_message& message) {
  --held_messages_;
  held_bytes_ -= message.encoded.size();
}

std::size_t broker_queue::expire(broker_clock::time_point now) {
  if (!earliest_expiry_ || now < *earliest_expiry_)
    return 0;
  earliest_expiry_.reset();
  return std::erase_if(waiting_, [&](const auto& entry) {
    const broker_message& message = *entry.second;
    if (s_expired(message, now)) {
      finish(message);
      return true;
    }
    if (message.expiry && (!earliest_expiry_ || *message.expiry < *earliest_expiry_)) {
      earliest_expiry_ = message.expiry;
    }
    return false;
  });
}

}  // namespace kv_suite
