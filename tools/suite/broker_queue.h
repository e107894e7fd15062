#pragma once
// One queue of the broker: messages in their order of arrival, bounded in number and bytes. Knows
// nothing of links: who takes a message hands it back with `put_back` or ends it with `finish`, and
// until then it counts towards the bounds. One thread only: the broker's.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "message_sections.h"

namespace kv_suite {

using broker_clock = std::chrono::steady_clock;

struct broker_message {
  std::string encoded;          // the whole message as the producer sent it
  std::size_t bare_offset = 0;  // where the bytes behind the producer's header begin
  message_header header;        // sent anew in front of those bytes
  std::optional<broker_clock::time_point> expiry;
  std::uint64_t sequence = 0;  // place in its queue
};
using broker_message_ptr = std::shared_ptr<broker_message>;

// Makes a message of encoded bytes; null when they are none. Its time-to-live starts at now.
[[nodiscard]] broker_message_ptr make_broker_message(std::string encoded,
                                                     const message_sections& sections,
                                                     broker_clock::time_point now);
// Header to send now: what is left of the time-to-live, and the delivery count.
[[nodiscard]] message_header header_to_send(const broker_message& message,
                                            broker_clock::time_point now);

struct queue_limits {
  std::size_t messages = 100'000;
  std::size_t bytes = std::size_t{512} << 20;
};

// How a message comes back from a consumer that did not settle it for good.
enum class put_back_as {
  released,       // the attempt does not count; the old place
  failed,         // delivery count raised; the old place
  failed_to_end,  // delivery count raised; behind all others, since the same consumer cannot take
                  // it
};

class broker_queue {
 public:
  explicit broker_queue(const queue_limits& limits) : limits_(limits) {}

  // False when the queue is full; the message is then not kept.
  [[nodiscard]] bool push(broker_message_ptr message);
  // Oldest message that has not expired, or null. Expired ones met on the way are dropped.
  [[nodiscard]] broker_message_ptr take(broker_clock::time_point now);
  void put_back(const broker_message_ptr& message, put_back_as how);
  // The message that was taken is done with.
  void finish(const broker_message& message);
  // Drops what has expired; returns how many.
  std::size_t expire(broker_clock::time_point now);

  [[nodiscard]] bool empty() const { return waiting_.empty(); }
  [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }
  // Waiting ones and those taken but not finished.
  [[nodiscard]] std::size_t held_messages() const { return held_messages_; }
  [[nodiscard]] std::size_t held_bytes() const { return held_bytes_; }

 private:
  queue_limits limits_;
  std::map<std::uint64_t, broker_message_ptr> waiting_;  // by sequence
  std::uint64_t next_sequence_ = 1;
  std::size_t held_messages_ = 0;
  std::size_t held_bytes_ = 0;
  std::optional<broker_clock::time_point> earliest_expiry_;  // never later than the true one
};

}  // namespace kv_suite
