#pragma once
// Messages over which the broker may have closed the sending link. A closing does not say which of
// the messages in flight it is about. So the destinations of all of them come under suspicion, and
// a message to one of them travels alone until the broker has given one an outcome. When the link
// is closed over a message that travels alone for the second time, the message is given up; when
// the broker names a reason that lies with the destination, so is every other message to it for a
// minute. No locks, no clock of its own; one thread.

#include <chrono>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// Closings over the same lonely message after which it is given up: one may be chance.
inline constexpr int KV_GUILTY_CLOSINGS = 2;
// How long messages are given up at once, counted from the last closing. After that one at a time
// is tried again.
inline constexpr std::chrono::seconds KV_GUILTY_TIME{60};
// How long a closing is remembered.
inline constexpr std::chrono::seconds KV_SUSPECT_TIME{600};
// Most destinations and messages that are remembered; the oldest are forgotten first.
inline constexpr std::size_t KV_SUSPECTS_LIMIT = 1000;

class kv_qpid_suspects {
 public:
  using time_point = std::chrono::steady_clock::time_point;

  struct message {
    std::string_view to;
    std::string_view identity;  // the same when the message comes again, different for others
  };
  enum class passage {
    free,   // among others
    alone,  // when nothing else is in flight
    none,   // given up
  };

  [[nodiscard]] passage passage_of(const message& sent, time_point now) const;
  // The broker closed the link, session or connection for the named reason (AMQP 1.0, 2.8.15 to
  // 2.8.18; empty for none), with these messages in flight.
  void closed(const std::vector<message>& in_flight, std::string_view condition, time_point now);
  // The broker gave the message an outcome.
  void answered(const message& sent);
  [[nodiscard]] std::size_t size() const { return records_.size(); }

 private:
  struct record {
    int closings = 0;  // with nothing else in flight
    time_point last{};
  };

  [[nodiscard]] bool is_guilty(const std::string& key, time_point now) const;
  record& touch(const std::string& key, time_point now);
  void make_room(time_point now);

  std::unordered_map<std::string, record> records_;  // by destination, or by message
};
