#pragma once
// Received messages on their way to the thread that wants them, and the rules by which a waiting
// requester finds its reply among them. No locks: the receiver that owns a buffer guards it.

#include <proton/message_id.hpp>
#include <proton/type_id.hpp>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_set>

#include "messaging/kv_qpid_body.h"
#include "messaging/kv_qpid_state.h"

// One message, taken out of Proton's hands.
struct kv_received_message {
  std::int64_t arrival_ms = 0;  // system clock
  proton::message_id id;        // a reply's correlation id, a request's own id
  std::string key;              // kv_message_id_key of a reply's id
  std::string reply_to;         // of a request
  proton::type_id body_type = proton::NULL_TYPE;
  kv_body body;
  kv_body_error error = kv_body_error::none;
  kv_clock::time_point expiry = kv_clock::time_point::max();  // end of its time-to-live
  std::uint64_t sequence = 0;    // number of the delivery that is to be settled
  std::uint64_t generation = 0;  // connection on which it came
};

// A reply that nobody claims is dropped once it is older than this.
inline constexpr std::int64_t KV_UNCLAIMED_REPLY_MS = 5000;

// Milliseconds of the system clock.
[[nodiscard]] std::int64_t kv_system_ms();

class kv_reply_buffer {
 public:
  void add(kv_received_message&& reply) { buffer_.push_back(std::move(reply)); }
  [[nodiscard]] bool empty() const { return buffer_.empty(); }
  [[nodiscard]] std::size_t size() const { return buffer_.size(); }
  [[nodiscard]] bool holds(const std::string& key) const;
  // When the front message becomes too old; the buffer is not empty.
  [[nodiscard]] std::int64_t front_limit_ms() const;

  // Clears the front of replies that nobody waits for any more, then looks for the wanted one
  // anywhere. Adds to credits one for each message of the given connection that left the buffer.
  [[nodiscard]] std::optional<kv_received_message> match_reply(const std::string& wanted,
                                                               std::int64_t now_ms,
                                                               std::uint64_t generation,
                                                               std::uint32_t& credits);

  // Drops the oldest replies whose key is not among the expected ones until no more than limit of
  // them are left: what nobody asked for must not hold the credit that the others need. Adds to
  // credits as match_reply does.
  void drop_unclaimed(const std::unordered_set<std::string>& expected, std::size_t limit,
                      std::uint64_t generation, std::uint32_t& credits);

  // Notes that the requester of an id stopped waiting. Returns the number of ids noted.
  std::size_t add_expired(const std::string& key);
  [[nodiscard]] std::size_t expired_size() const { return expired_.size(); }

 private:
  void drop_front(std::uint64_t generation, std::uint32_t& credits);
  [[nodiscard]] bool drop_stale_front(std::int64_t now_ms, std::uint64_t generation,
                                      std::uint32_t& credits);

  std::deque<kv_received_message> buffer_;   // in the order of arrival
  std::unordered_set<std::string> expired_;  // left only by the arrival of the late reply
};
