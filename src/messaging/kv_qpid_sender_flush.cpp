// The sender's work on the container thread: messages to Proton, outcomes to requests, and what
// becomes of the messages in flight when the broker closes the link.
#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/session.h>
#include <proton/transport.h>
#include <proton/connection.hpp>
#include <proton/container.hpp>
#include <proton/error_condition.hpp>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <limits>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_c_objects.h"
#include "messaging/kv_qpid_receiver.h"
#include "messaging/kv_qpid_sender.h"

namespace {

// Links that the broker may close over messages before the connection is made anew, with its
// growing pauses.
constexpr int kLinksPerConnection = 50;

// A broker that keeps outcomes back holds up suspects, and what waits behind them, no longer.
constexpr kv_ms kLonelyPatience{1000};

// What fits into one frame of the peer; everything when it takes frames of any size.
std::size_t s_portion(pn_link_t* link) {
  constexpr std::uint32_t kFrameRoom = 256;  // of the transfer's own fields
  pn_transport_t* transport = pn_connection_transport(pn_session_connection(pn_link_session(link)));
  const std::uint32_t frame =
      transport != nullptr ? pn_transport_get_remote_max_frame(transport) : 0;
  return frame > 2 * kFrameRoom ? frame - kFrameRoom : std::numeric_limits<std::size_t>::max();
}

std::uint64_t s_tag_number(const proton::tracker& tracker) {
  const proton::binary tag = tracker.tag();
  std::uint64_t number = 0;
  if (tag.size() == sizeof number) {
    std::memcpy(&number, tag.data(), sizeof number);
  }
  return number;
}

}  // namespace

// One turn: what threads have queued, then whatever receivers owe.
void qpid_sender::flush() {
  assert(state_.on_container_thread());
  kv_barrier("flush", [&] {
    take_outbox();
    send_pending();
    serve_receivers_();
    const std::lock_guard lock(mutex_);
    credit_ = sender_ ? sender_.credit() : 0;
    if (waiting_ > 0) {
      changed_.notify_all();
    }
  });
}

// Outcomes are given at once, messages line up.
void qpid_sender::take_outbox() {
  {
    const std::lock_guard lock(mutex_);
    posted_ = false;
    batch_.swap(outbox_);
  }
  for (kv_outgoing& entry : batch_) {
    if (!entry.bytes.empty()) {
      pending_.push_back(std::move(entry));
    } else if (is_current(entry.request)) {
      kv_barrier("flush", [&] { settle_request(entry.request, entry.outcome); });
    }
  }
  batch_.clear();
}

void qpid_sender::send_pending() {
  while (!pending_.empty() && sender_) {
    progress reached = progress::done;  // one that throws is not tried again
    kv_barrier("flush", [&] { reached = flush_one(pending_.front()); });
    if (reached == progress::held) {
      drop_what_is_over();
    }
    if (reached != progress::done) {
      go_on(reached);
      return;
    }
    pop_front();
  }
}

// Behind a message that is held others run out of time.
void qpid_sender::drop_what_is_over() {
  const auto count = std::erase_if(pending_, [&](const kv_outgoing& message) {
    bool over = false;
    kv_barrier("flush", [&] { over = is_over(message); });
    return over;
  });
  const std::lock_guard lock(mutex_);
  queued_ -= static_cast<int>(count);
}

void qpid_sender::pop_front() {
  pending_.pop_front();
  front_sent_ = 0;
  const std::lock_guard lock(mutex_);
  --queued_;
}

bool qpid_sender::is_current(const kv_request_ref& request) const {
  return request.receiver == nullptr || request.generation == state_.generation.load();
}

qpid_sender::progress qpid_sender::flush_one(kv_outgoing& message) {
  if (front_sent_ == 0) {
    if (is_over(message)) {
      return progress::done;
    }
    if (must_wait(message)) {
      return progress::held;
    }
    begin();
  }
  const progress reached = transmit(message);
  if (reached == progress::done) {
    by_tag_.emplace(next_tag_, std::move(message));
  }
  return reached;
}

// A message that need not, or must not, go out any more.
bool qpid_sender::is_over(const kv_outgoing& message) {
  if (!is_current(message.request)) {
    KV_LOG_DEBUG("Reply to '%s' dropped: its request belongs to a lost connection",
                 message.to.c_str());
    return true;
  }
  const auto now = kv_clock::now();
  if (now > message.deadline) {
    KV_LOG_WARN("Message to '%s' not sent: its time-out has passed", message.to.c_str());
    settle_request(message.request, kv_outcome::modified);
    return true;
  }
  if (suspects_.passage_of({message.to, message.identity}, now) ==
      kv_qpid_suspects::passage::none) {
    KV_LOG_WARN("Message to '%s' given up: the broker closes the link over it", message.to.c_str());
    settle_request(message.request, kv_outcome::accepted);
    return true;
  }
  return false;
}

bool qpid_sender::must_wait(const kv_outgoing& message) {
  if (sender_.credit() <= 0) {
    return true;
  }
  const auto now = kv_clock::now();
  const bool is_lonely =
      suspects_.passage_of({message.to, message.identity}, now) == kv_qpid_suspects::passage::alone;
  const bool has_company = is_lonely ? !by_tag_.empty() : lonely_tag_ != 0;
  if (has_company && now < last_progress_ + kLonelyPatience) {
    return true;
  }
  lonely_tag_ = is_lonely ? next_tag_ + 1 : 0;
  return false;
}

void qpid_sender::begin() {
  ++next_tag_;
  last_progress_ = kv_clock::now();
  pn_delivery(kv_sender_link(sender_),
              pn_dtag(reinterpret_cast<const char*>(&next_tag_), sizeof next_tag_));
}

// The library moves all that is left of a message byte by byte for each frame that it cuts from it:
// a large message is handed over in portions that fill one frame each.
qpid_sender::progress qpid_sender::transmit(kv_outgoing& message) {
  pn_link_t* link = kv_sender_link(sender_);
  pn_delivery_t* delivery = pn_link_current(link);
  if (front_sent_ != 0 && pn_delivery_pending(delivery) != 0) {
    return progress::socket_full;
  }
  const std::size_t size = std::min(s_portion(link), message.bytes.size() - front_sent_);
  pn_link_send(link, message.bytes.data() + front_sent_, size);
  front_sent_ += size;
  if (front_sent_ < message.bytes.size()) {
    return progress::begun;
  }
  pn_link_advance(link);
  return progress::done;
}

// Another turn: at once, when the socket may have room again, or when what is waited for comes; the
// last needs a timer all the same, for the messages' time-outs.
void qpid_sender::go_on(progress reached) {
  constexpr kv_ms kSocketPoll{1};
  switch (reached) {
    case progress::begun:
      return post();
    case progress::socket_full:
      return go_on_later(kSocketPoll);
    default:
      return go_on_later(state_.options().tick);
  }
}

void qpid_sender::go_on_later(kv_ms delay) {
  if (timer_pending_ || state_.stopping.load()) {
    return;
  }
  timer_pending_ = true;
  const proton::duration pause(static_cast<proton::duration::numeric_type>(delay.count()));
  sender_.container().schedule(pause, [this, number = ++timer_] {
    if (number == timer_) {
      timer_pending_ = false;
      post();
    }
  });
}

void qpid_sender::settle_request(const kv_request_ref& request, kv_outcome outcome) {
  if (request.receiver != nullptr) {
    request.receiver->settle(request.sequence, outcome);
  }
}

void qpid_sender::finish(proton::tracker& tracker, const char* refusal) {
  kv_barrier("finish", [&] {
    const std::uint64_t tag = s_tag_number(tracker);
    const auto sent = by_tag_.find(tag);
    if (sent != by_tag_.end()) {
      end_message(sent->second, refusal);
      by_tag_.erase(sent);
    } else if (front_sent_ != 0 && tag == next_tag_) {
      finish_unsent_rest(tracker, refusal);
    } else {
      return;
    }
    lonely_tag_ = lonely_tag_ == tag ? 0 : lonely_tag_;
    last_progress_ = kv_clock::now();
    if (!pending_.empty()) {
      post();
    }
  });
}

void qpid_sender::end_message(const kv_outgoing& message, const char* refusal) {
  if (refusal != nullptr) {
    KV_LOG_WARN("The broker answered '%s' to the message to '%s'", refusal, message.to.c_str());
  }
  suspects_.answered({message.to, message.identity});
  // A refused reply, too, ends its request: otherwise one bad reply-to comes round for ever.
  settle_request(message.request, kv_outcome::accepted);
}

// The broker has decided before it has seen the whole message: it wants no more of it.
void qpid_sender::finish_unsent_rest(proton::tracker& tracker, const char* refusal) {
  tracker.settle();
  end_message(pending_.front(), refusal);
  pop_front();
}

// ---- links that the broker closes ----

// A suspect that travels alone is the only one to blame; what has waited for its outcome since long
// before is not in question.
void qpid_sender::blame_in_flight(const proton::error_condition& condition) {
  std::vector<kv_qpid_suspects::message> in_flight;
  for (const auto& [tag, message] : by_tag_) {
    if (lonely_tag_ == 0 || lonely_tag_ == tag) {
      in_flight.push_back({message.to, message.identity});
    }
  }
  if (front_sent_ != 0) {
    in_flight.push_back({pending_.front().to, pending_.front().identity});
  }
  suspects_.closed(in_flight, condition.name(), kv_clock::now());
}

// What has no outcome goes out again, in the same order.
void qpid_sender::take_back() {
  const int count = static_cast<int>(by_tag_.size());
  std::vector<kv_outgoing> again;
  for (auto& [tag, message] : by_tag_) {
    again.push_back(std::move(message));
  }
  pending_.insert(pending_.begin(), std::make_move_iterator(again.begin()),
                  std::make_move_iterator(again.end()));
  by_tag_.clear();
  front_sent_ = 0;
  lonely_tag_ = 0;
  const std::lock_guard lock(mutex_);
  queued_ += count;
  credit_ = 0;
}

// The rest of the connection may be sound: the requests in work keep their deliveries. A link that
// is refused, or closed without a message, is no message's fault and waits for the next connection.
void qpid_sender::link_closed(proton::sender& sender) {
  const bool was_used = !by_tag_.empty() || front_sent_ != 0;
  blame_in_flight(sender.error());
  sender_ = {};
  take_back();
  if (!was_used || ++closed_links_ > kLinksPerConnection || state_.stopping.load()) {
    owner_.drop_connection();
    return;
  }
  KV_LOG_WARN("The broker closed the sender's link, opening another one");
  proton::connection connection = sender.connection();
  sender.close();
  open(connection);
  owner_.sender_reopens();
}
