#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_sender.h"

#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/session.h>
#include <proton/terminus.h>
#include <proton/transport.h>
#include <proton/connection.hpp>
#include <proton/container.hpp>
#include <proton/error_condition.hpp>
#include <proton/sender_options.hpp>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_receiver.h"

namespace {

struct s_link : proton::sender {
  explicit s_link(const proton::sender& base) : proton::sender(base) {}
  [[nodiscard]] pn_link_t* get() const { return pn_object(); }
};

// A broker that may answer an unroutable message with an outcome need not close the link over it.
// The C++ binding has no way to say which outcomes the source knows.
void s_offer_outcomes(const proton::sender& sender) {
  pn_data_t* outcomes = pn_terminus_outcomes(pn_link_source(s_link(sender).get()));
  pn_data_put_array(outcomes, false, PN_SYMBOL);
  pn_data_enter(outcomes);
  for (const char* name :
       {"amqp:accepted:list", "amqp:rejected:list", "amqp:released:list", "amqp:modified:list"}) {
    pn_data_put_symbol(outcomes, pn_bytes(std::strlen(name), name));
  }
  pn_data_exit(outcomes);
}

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

bool qpid_sender::was_opened() const {
  const std::lock_guard lock(mutex_);
  return opened_;
}

bool qpid_sender::wait_until_opened(kv_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, deadline, [&] { return opened_ || closed_; });
  return opened_;
}

// Until done or the deadline; a thread with a stop flag looks at it meanwhile.
template <class Done>
bool qpid_sender::wait_while_asked(std::unique_lock<std::mutex>& lock,
                                   kv_clock::time_point deadline, const Done& done) {
  if (kv_amqp_stop_flag == nullptr) {
    return changed_.wait_until(lock, deadline, done);
  }
  while (!done()) {
    const auto now = kv_clock::now();
    if (now >= deadline || kv_amqp_stop_requested()) {
      return false;
    }
    changed_.wait_until(lock, std::min(deadline, now + kv_ms(KV_STOP_POLL_MS)));
  }
  return true;
}

void qpid_sender::send(kv_outgoing&& message) {
  const bool is_reply = message.request.receiver != nullptr;
  const auto is_stale = [&] {
    return is_reply &&
           message.request.generation != state_.generation.load(std::memory_order_acquire);
  };
  std::unique_lock lock(mutex_);
  ++waiting_;
  const bool ready = wait_while_asked(lock, message.deadline, [&] {
    return closed_ || is_stale() || (work_queue_ != nullptr && queued_ < credit_);
  });
  --waiting_;
  if (closed_) {
    throw std::runtime_error("Sender is not open");
  }
  if (is_stale()) {
    KV_LOG_DEBUG("Reply to '%s' dropped: its request belongs to a lost connection",
                 message.to.c_str());
    return;
  }
  if (!ready) {
    throw std::runtime_error("Timeout");
  }
  ++queued_;
  outbox_.push_back(std::move(message));
  post_locked();
}

void qpid_sender::settle(kv_request_ref request, kv_outcome outcome) {
  kv_outgoing entry;
  entry.request = request;
  entry.outcome = outcome;
  const std::lock_guard lock(mutex_);
  outbox_.push_back(std::move(entry));
  post_locked();
}

void qpid_sender::post() {
  const std::lock_guard lock(mutex_);
  post_locked();
}

void qpid_sender::post_locked() {
  if (posted_ || work_queue_ == nullptr) {
    return;
  }
  posted_ = work_queue_->add([this] { flush(); });
}

bool qpid_sender::post_job(std::function<void()> job) {
  const std::lock_guard lock(mutex_);
  return work_queue_ != nullptr && work_queue_->add(std::move(job));
}

void qpid_sender::close(kv_clock::time_point deadline) {
  KV_LOG_DEBUG("Closing sender");
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, deadline, [&] { return opened_; });
  closed_ = true;
  changed_.notify_all();
}

void qpid_sender::open(proton::connection& connection) {
  assert(state_.on_container_thread());
  proton::sender sender = connection.open_sender("", proton::sender_options().handler(*this));
  s_offer_outcomes(sender);  // the attach leaves after the handler that called this
}

void qpid_sender::lost() {
  assert(state_.on_container_thread());
  by_tag_.clear();
  sender_ = {};
  // A message of which a part has gone out is gone; the others wait for the next connection.
  const bool is_cut = front_sent_ != 0;
  if (is_cut) {
    pending_.pop_front();
    front_sent_ = 0;
  }
  const std::lock_guard lock(mutex_);
  queued_ -= is_cut ? 1 : 0;
  work_queue_ = nullptr;
  posted_ = false;
  credit_ = 0;
  changed_.notify_all();
}

// One turn: what threads have queued, then whatever receivers owe.
void qpid_sender::flush() {
  assert(state_.on_container_thread());
  kv_barrier("flush", [&] {
    take_outbox();
    const std::size_t before = pending_.size();
    send_pending();
    serve_receivers_();
    const std::lock_guard lock(mutex_);
    queued_ -= static_cast<int>(before - pending_.size());
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
    bool done = true;
    kv_barrier("flush", [&] { done = flush_one(pending_.front()); });
    if (!done) {
      go_on_soon();
      return;
    }
    pending_.pop_front();
    front_sent_ = 0;
  }
}

bool qpid_sender::is_current(const kv_request_ref& request) const {
  return request.receiver == nullptr || request.generation == state_.generation.load();
}

bool qpid_sender::flush_one(kv_outgoing& message) {
  if (front_sent_ != 0) {
    return transmit(message);
  }
  if (!is_current(message.request)) {
    KV_LOG_DEBUG("Reply to '%s' dropped: its request belongs to a lost connection",
                 message.to.c_str());
    return true;
  }
  if (kv_clock::now() > message.deadline) {
    KV_LOG_WARN("Message to '%s' not sent: its time-out has passed", message.to.c_str());
    settle_request(message.request, kv_outcome::modified);
    return true;
  }
  const std::uint64_t tag = ++next_tag_;
  by_tag_.emplace(tag, sent_message{message.to, message.request});
  pn_delivery(s_link(sender_).get(), pn_dtag(reinterpret_cast<const char*>(&tag), sizeof tag));
  return transmit(message);
}

// The library moves all that is left of a message byte by byte for each frame that it cuts from it:
// a large message is handed over in portions that fill one frame each.
bool qpid_sender::transmit(kv_outgoing& message) {
  pn_link_t* link = s_link(sender_).get();
  pn_delivery_t* delivery = pn_link_current(link);
  const std::size_t portion = s_portion(link);
  front_blocked_ = front_sent_ != 0 && pn_delivery_pending(delivery) != 0;
  if (front_blocked_) {
    return false;  // the last portion has not left yet
  }
  const std::size_t size = std::min(portion, message.bytes.size() - front_sent_);
  pn_link_send(link, message.bytes.data() + front_sent_, size);
  front_sent_ += size;
  if (front_sent_ < message.bytes.size()) {
    return false;
  }
  pn_link_advance(link);
  return true;
}

// Another turn: at once when the last portion has left, else when the socket may have room again.
void qpid_sender::go_on_soon() {
  if (front_blocked_) {
    const proton::duration socket_poll(1);
    sender_.container().schedule(socket_poll, [this] { post(); });
    return;
  }
  post();
}

void qpid_sender::settle_request(const kv_request_ref& request, kv_outcome outcome) {
  if (request.receiver != nullptr) {
    request.receiver->settle(request.sequence, outcome);
  }
}

void qpid_sender::finish(proton::tracker& tracker, const char* refusal) {
  kv_barrier("finish", [&] {
    const auto sent = by_tag_.find(s_tag_number(tracker));
    if (sent == by_tag_.end()) {
      return;
    }
    if (refusal != nullptr) {
      KV_LOG_WARN("The broker answered '%s' to the message to '%s'", refusal,
                  sent->second.to.c_str());
    }
    // A refused reply, too, ends its request: otherwise one bad reply-to comes round for ever.
    settle_request(sent->second.request, kv_outcome::accepted);
    by_tag_.erase(sent);
  });
}

void qpid_sender::on_connection_open(proton::connection& connection) {
  assert(state_.on_container_thread());
  if (reconnected_) {
    KV_LOG_WARN("Sender reconnected");
  }
  open(connection);
}

void qpid_sender::on_sender_open(proton::sender& sender) {
  assert(state_.on_container_thread());
  KV_LOG_DEBUG("Sender opened");
  sender_ = sender;
  reconnected_ = true;
  owner_.sender_opened();
  const std::lock_guard lock(mutex_);
  work_queue_ = &sender.work_queue();
  credit_ = sender.credit();
  opened_ = true;
  changed_.notify_all();
  post_locked();  // what waited for the link
}

void qpid_sender::on_sendable(proton::sender& sender) {
  assert(state_.on_container_thread());
  const std::lock_guard lock(mutex_);
  credit_ = sender.credit();
  if (waiting_ > 0) {
    changed_.notify_all();
  }
}

void qpid_sender::on_tracker_accept(proton::tracker& tracker) {
  finish(tracker, nullptr);
}

void qpid_sender::on_tracker_reject(proton::tracker& tracker) {
  finish(tracker, "rejected");
}

void qpid_sender::on_tracker_release(proton::tracker& tracker) {
  finish(tracker, "released");
}

// Without a state before it this is all the broker says; after one there is nothing left to do.
void qpid_sender::on_tracker_settle(proton::tracker& tracker) {
  finish(tracker, nullptr);
}

void qpid_sender::on_sender_error(proton::sender& sender) {
  on_error(sender.error());
}

void qpid_sender::on_sender_close(proton::sender&) {
  owner_.drop_connection();
}

void qpid_sender::on_error(const proton::error_condition& condition) {
  if (!state_.stopping.load()) {
    KV_LOG_ERROR("unexpected error: %s", condition.what().c_str());
  }
}
