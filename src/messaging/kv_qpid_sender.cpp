#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_sender.h"

#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/terminus.h>
#include <proton/connection.hpp>
#include <proton/error_condition.hpp>
#include <proton/sender_options.hpp>

#include <algorithm>
#include <cassert>
#include <cstring>
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
  const std::lock_guard lock(mutex_);
  work_queue_ = nullptr;
  posted_ = false;
  credit_ = 0;
  changed_.notify_all();
}

// One batch: what threads have queued, then whatever receivers owe.
void qpid_sender::flush() {
  assert(state_.on_container_thread());
  kv_barrier("flush", [&] {
    {
      const std::lock_guard lock(mutex_);
      posted_ = false;
      batch_.swap(outbox_);
    }
    int handed_over = 0;
    for (kv_outgoing& message : batch_) {
      handed_over += message.bytes.empty() ? 0 : 1;
      kv_barrier("flush", [&] { flush_one(message); });
    }
    batch_.clear();
    serve_receivers_();
    const std::lock_guard lock(mutex_);
    queued_ -= handed_over;
    credit_ = sender_ ? sender_.credit() : 0;
    if (waiting_ > 0) {
      changed_.notify_all();
    }
  });
}

void qpid_sender::flush_one(kv_outgoing& message) {
  const bool is_reply = message.request.receiver != nullptr;
  if (is_reply && message.request.generation != state_.generation.load()) {
    KV_LOG_DEBUG("Reply to '%s' dropped: its request belongs to a lost connection",
                 message.to.c_str());
    return;
  }
  if (message.bytes.empty()) {
    settle_request(message.request, message.outcome);
    return;
  }
  if (kv_clock::now() > message.deadline) {
    KV_LOG_WARN("Message to '%s' not sent: its time-out has passed", message.to.c_str());
    settle_request(message.request, kv_outcome::modified);
    return;
  }
  transmit(message);
}

void qpid_sender::transmit(const kv_outgoing& message) {
  const std::uint64_t tag = ++next_tag_;
  by_tag_.emplace(tag, sent_message{message.to, message.request});
  pn_link_t* link = s_link(sender_).get();
  pn_delivery(link, pn_dtag(reinterpret_cast<const char*>(&tag), sizeof tag));
  pn_link_send(link, message.bytes.data(), message.bytes.size());
  pn_link_advance(link);
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
