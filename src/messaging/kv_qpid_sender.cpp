#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_sender.h"

#include <proton/codec.h>
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
#include "messaging/kv_qpid_c_objects.h"

namespace {

// A broker that may answer an unroutable message with an outcome need not close the link over it.
// The C++ binding has no way to say which outcomes the source knows.
void s_offer_outcomes(const proton::sender& sender) {
  pn_data_t* outcomes = pn_terminus_outcomes(pn_link_source(kv_sender_link(sender)));
  pn_data_put_array(outcomes, false, PN_SYMBOL);
  pn_data_enter(outcomes);
  for (const char* name :
       {"amqp:accepted:list", "amqp:rejected:list", "amqp:released:list", "amqp:modified:list"}) {
    pn_data_put_symbol(outcomes, pn_bytes(std::strlen(name), name));
  }
  pn_data_exit(outcomes);
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
  lonely_tag_ = 0;
  closed_links_ = 0;
  timer_pending_ = false;  // its container may be gone, too
  ++timer_;
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
  if (!pending_.empty()) {
    post_locked();
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

void qpid_sender::on_sender_close(proton::sender& sender) {
  kv_barrier(__func__, [&] { link_closed(sender); });
}

void qpid_sender::on_error(const proton::error_condition& condition) {
  if (!state_.stopping.load()) {
    KV_LOG_ERROR("unexpected error: %s", condition.what().c_str());
  }
}
