#include "messaging/kv_qpid_suspects.h"

#include <algorithm>
#include <array>

namespace {

// Reasons that say nothing about a message: an operator or the broker's end is behind them.
constexpr std::array<std::string_view, 2> kForced{"amqp:connection:forced",
                                                  "amqp:link:detach-forced"};

// Reasons that lie with the destination and so meet every message to it.
constexpr std::array<std::string_view, 3> kAboutDestination{"amqp:not-allowed", "amqp:not-found",
                                                            "amqp:unauthorized-access"};

std::string s_destination_key(const kv_qpid_suspects::message& sent) {
  return std::string("d").append(sent.to);
}

std::string s_message_key(const kv_qpid_suspects::message& sent) {
  return std::string("m").append(sent.to).append(1, '\0').append(sent.identity);
}

}  // namespace

bool kv_qpid_suspects::is_guilty(const std::string& key, time_point now) const {
  const auto found = records_.find(key);
  return found != records_.end() && found->second.closings >= KV_GUILTY_CLOSINGS &&
         now < found->second.last + KV_GUILTY_TIME;
}

kv_qpid_suspects::passage kv_qpid_suspects::passage_of(const message& sent, time_point now) const {
  if (records_.empty()) {
    return passage::free;
  }
  if (is_guilty(s_destination_key(sent), now) || is_guilty(s_message_key(sent), now)) {
    return passage::none;
  }
  const auto found = records_.find(s_destination_key(sent));
  const bool is_suspect = found != records_.end() && now < found->second.last + KV_SUSPECT_TIME;
  return is_suspect ? passage::alone : passage::free;
}

void kv_qpid_suspects::closed(const std::vector<message>& in_flight, std::string_view condition,
                              time_point now) {
  if (std::ranges::find(kForced, condition) != kForced.end()) {
    return;
  }
  for (const message& sent : in_flight) {
    touch(s_destination_key(sent), now);
  }
  if (in_flight.size() != 1) {
    return;
  }
  const message& lonely = in_flight.front();
  const bool about_destination =
      std::ranges::find(kAboutDestination, condition) != kAboutDestination.end();
  ++touch(about_destination ? s_destination_key(lonely) : s_message_key(lonely), now).closings;
}

void kv_qpid_suspects::answered(const message& sent) {
  if (!records_.empty()) {
    records_.erase(s_destination_key(sent));
    records_.erase(s_message_key(sent));
  }
}

kv_qpid_suspects::record& kv_qpid_suspects::touch(const std::string& key, time_point now) {
  if (!records_.contains(key)) {
    make_room(now);
  }
  record& touched = records_[key];
  touched.last = now;
  return touched;
}

void kv_qpid_suspects::make_room(time_point now) {
  if (records_.size() < KV_SUSPECTS_LIMIT) {
    return;
  }
  std::erase_if(records_,
                [&](const auto& entry) { return entry.second.last + KV_SUSPECT_TIME <= now; });
  while (records_.size() >= KV_SUSPECTS_LIMIT) {
    records_.erase(std::ranges::min_element(records_, {},
                                            [](const auto& entry) { return entry.second.last; }));
  }
}
