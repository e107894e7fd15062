#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_receiver.h"

#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/connection.hpp>
#include <proton/error_condition.hpp>
#include <proton/receiver_options.hpp>
#include <proton/source.hpp>

#include <algorithm>
#include <cassert>
#include <stdexcept>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_c_objects.h"

namespace {

// Credit is given back in portions: a flow frame and a wake-up of the container thread for each
// message cost more than the message.
constexpr std::uint32_t kCreditPortions = 5;

// Which part of the credit replies may hold that nobody has asked for, or no longer: duplicates,
// late ones, foreign ones.
constexpr std::uint32_t kUnclaimedShare = 2;

void s_settle(proton::delivery& delivery, kv_outcome outcome) {
  switch (outcome) {
    case kv_outcome::accepted:
      delivery.accept();
      break;
    case kv_outcome::released:
      delivery.release();
      break;
    case kv_outcome::modified:
      delivery.modify();
      break;
  }
}

// Whether another whole message has been read and is about to come.
bool s_is_next_complete(const proton::receiver& receiver) {
  pn_delivery_t* const next = pn_link_current(kv_receiver_link(receiver));
  return next != nullptr && pn_delivery_pending(next) > 0 && !pn_delivery_partial(next) &&
         !pn_delivery_aborted(next);
}

template <class Body>
struct s_scope_exit {
  explicit s_scope_exit(Body leave) : body(std::move(leave)) {}
  s_scope_exit(const s_scope_exit&) = delete;
  s_scope_exit& operator=(const s_scope_exit&) = delete;
  ~s_scope_exit() { body(); }
  Body body;
};

}  // namespace

qpid_receiver::qpid_receiver(kv_qpid_state& state, kv_qpid_link_owner& owner, qpid_sender& sender,
                             std::string address)
    : state_(state),
      owner_(owner),
      sender_(sender),
      address_(std::move(address)),
      takes_replies_(address_.find(KV_REPLY_QUEUE_PREFIX) != std::string::npos) {}

// ---- any thread ----

void qpid_receiver::owe_credit(std::uint32_t count) {
  const std::uint32_t portion = std::max(state_.options().credit / kCreditPortions, 1U);
  if (count != 0 && owed_credit_.fetch_add(count) + count >= portion) {
    sender_.post();
  }
}

std::optional<kv_received_message> qpid_receiver::receive(kv_request_thread& self,
                                                          const std::atomic<std::int32_t>& stop) {
  while (auto request = requests_.take(self, stop)) {
    owe_credit(1);
    if (request->expiry >= kv_clock::now()) {
      return request;
    }
    KV_LOG_INFO("Request with msg.id '%s' has outlived its time-to-live, accepting it unhandled",
                proton::to_string(request->id).c_str());
    sender_.settle({this, request->sequence, request->generation}, kv_outcome::accepted);
  }
  return std::nullopt;
}

void qpid_receiver::expect(const proton::message_id& id) {
  const std::lock_guard lock(mutex_);
  expected_.insert(kv_message_id_key(id));
}

void qpid_receiver::forget(const proton::message_id& id) {
  const std::lock_guard lock(mutex_);
  expected_.erase(kv_message_id_key(id));
}

kv_received_message qpid_receiver::receive(kv_ms timeout, const proton::message_id& id) {
  const std::string key = kv_message_id_key(id);
  waiter own;
  std::unique_lock lock(mutex_);
  waiters_.emplace(key, &own);
  const s_scope_exit leave([&] { waiters_.erase(key); });  // before the lock goes
  return wait_for_reply(lock, own, timeout, id, key);
}

kv_received_message qpid_receiver::wait_for_reply(std::unique_lock<std::mutex>& lock, waiter& own,
                                                  kv_ms timeout, const proton::message_id& id,
                                                  const std::string& key) {
  const std::int64_t deadline_ms = kv_system_ms() + std::max<std::int64_t>(timeout.count(), 0);
  if (replies_.holds(key)) {
    KV_LOG_DEBUG("Reply already in buffer for correlation_id '%s'", proton::to_string(id).c_str());
  }
  KV_LOG_DEBUG("Waiting for reply on '%s' for %dms", address_.c_str(),
               static_cast<int>(timeout.count()));
  while (true) {
    if (closed_) {
      KV_LOG_WARN("%s", ever_opened_.load() ? "Receiver closed" : "Receiver uninitialized");
      throw std::runtime_error("receiver closed");
    }
    if (auto reply = match_reply(key)) {
      return std::move(*reply);
    }
    if (kv_system_ms() >= deadline_ms || kv_amqp_stop_requested()) {
      KV_LOG_INFO("Added id '%s' to expired list (size=%ld)", proton::to_string(id).c_str(),
                  static_cast<long>(replies_.add_expired(key)));
      throw std::runtime_error("Timeout");
    }
    std::int64_t until_ms =
        replies_.empty() ? deadline_ms : std::min(deadline_ms, replies_.front_limit_ms());
    if (kv_amqp_stop_flag != nullptr) {
      until_ms = std::min(until_ms, kv_system_ms() + KV_STOP_POLL_MS);
    }
    own.arrived.wait_until(lock, std::chrono::system_clock::time_point(kv_ms(until_ms)));
  }
}

std::optional<kv_received_message> qpid_receiver::match_reply(const std::string& wanted) {
  std::uint32_t credits = 0;
  std::optional<kv_received_message> reply;
  std::size_t before = 0;
  do {  // a call that only cleared the front may have uncovered more to clear
    before = replies_.size();
    reply = replies_.match_reply(wanted, kv_system_ms(), state_.generation.load(), credits);
  } while (!reply && replies_.size() < before && !replies_.empty());
  owe_credit(credits);
  return reply;
}

void qpid_receiver::close() {
  KV_LOG_DEBUG("Closing receiver for address '%s'", address_.c_str());
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    done_ = done_ || !linked_;
    for (const auto& [key, waiting] : waiters_) {
      waiting->arrived.notify_one();
    }
  }
  requests_.close();
  KV_LOG_DEBUG("Receiver close requested");
  sender_.post();
}

bool qpid_receiver::wait_until_done(kv_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return stopped_.wait_until(lock, deadline, [&] { return done_; });
}

// ---- container thread ----

void qpid_receiver::open(proton::connection& connection) {
  assert(state_.on_container_thread());
  {
    const std::lock_guard lock(mutex_);
    if (closed_ || linked_) {
      return;
    }
    linked_ = true;
  }
  KV_LOG_DEBUG("Opening receiver on address '%s'", address_.c_str());
  const proton::receiver receiver = connection.open_receiver(
      address_, proton::receiver_options().handler(*this).credit_window(0).auto_accept(false));
  pn_link_set_context(kv_receiver_link(receiver), this);
}

void qpid_receiver::serve() {
  assert(state_.on_container_thread());
  if (!receiver_) {
    return;
  }
  bool closing = false;
  {
    const std::lock_guard lock(mutex_);
    closing = closed_;
  }
  if (closing) {
    begin_stop();
    return;
  }
  if (const std::uint32_t credit = owed_credit_.exchange(0); credit != 0) {
    receiver_.add_credit(credit);
  }
}

void qpid_receiver::settle(std::uint64_t sequence, kv_outcome outcome) {
  assert(state_.on_container_thread());
  const auto delivery = open_.find(sequence);
  if (delivery == open_.end()) {
    return;
  }
  s_settle(delivery->second, outcome);
  open_.erase(delivery);
  finish_stop_when_empty();
}

void qpid_receiver::lost() {
  assert(state_.on_container_thread());
  open_.clear();
  receiver_ = {};
  stop_begun_ = false;
  owed_credit_ = 0;
  credit_seen_ = 0;
  static_cast<void>(requests_.take_all());
  const std::lock_guard lock(mutex_);
  linked_ = false;
  done_ = closed_;
  stopped_.notify_all();
}

// No more credit: what the broker has on the way still comes, then everything unserved goes back.
// Released before the link is dry it would come straight back to this process.
void qpid_receiver::begin_stop() {
  if (stop_begun_) {
    return;
  }
  stop_begun_ = true;
  drained_ = receiver_.credit() == 0;
  if (drained_) {
    release_buffered();
  } else {
    receiver_.drain();
  }
}

void qpid_receiver::release_buffered() {
  for (const kv_received_message& request : requests_.take_all()) {
    settle(request.sequence, kv_outcome::released);
  }
  finish_stop_when_empty();
}

void qpid_receiver::finish_stop_when_empty() {
  if (!stop_begun_ || !drained_ || !open_.empty()) {
    return;
  }
  if (receiver_) {
    receiver_.close();
  }
  const std::lock_guard lock(mutex_);
  done_ = true;
  stopped_.notify_all();
}

kv_received_message qpid_receiver::read(const proton::message& message) const {
  kv_received_message received;
  received.arrival_ms = kv_system_ms();
  received.generation = state_.generation.load();
  const proton::value& body = message.body();
  received.body_type = body.empty() ? proton::NULL_TYPE : body.type();
  received.error = kv_body_decode(body, received.body);
  if (takes_replies_) {
    received.id = message.correlation_id();
    received.key = kv_message_id_key(received.id);
    return received;
  }
  received.id = message.id();
  received.reply_to = message.reply_to();
  if (const auto ttl = message.ttl().milliseconds(); ttl != 0) {
    received.expiry = kv_clock::now() + kv_ms(static_cast<std::int64_t>(ttl));
  }
  return received;
}

void qpid_receiver::keep_reply(proton::delivery& delivery, kv_received_message&& message) {
  KV_LOG_DEBUG("Received reply with correlation_id: '%s'", proton::to_string(message.id).c_str());
  delivery.accept();
  std::uint32_t credits = 0;
  {
    const std::lock_guard lock(mutex_);
    const auto waiting = waiters_.find(message.key);
    replies_.add(std::move(message));
    if (waiting != waiters_.end()) {
      waiting->second->arrived.notify_one();
    }
    replies_.drop_unclaimed(expected_, state_.options().credit / kUnclaimedShare,
                            state_.generation.load(), credits);
  }
  owe_credit(credits);
}

void qpid_receiver::keep_request(proton::delivery& delivery, kv_received_message&& message) {
  KV_LOG_DEBUG("Received request with id: '%s'", proton::to_string(message.id).c_str());
  message.sequence = ++next_sequence_;
  open_.emplace(message.sequence, delivery);
  requests_.push(std::move(message), s_is_next_complete(receiver_));
}

void qpid_receiver::on_connection_open(proton::connection& connection) {
  assert(state_.on_container_thread());
  if (ever_opened_.load()) {
    KV_LOG_WARN("Receiver on address '%s' reconnected", address_.c_str());
  }
  open(connection);
}

void qpid_receiver::on_receiver_open(proton::receiver& receiver) {
  assert(state_.on_container_thread());
  KV_LOG_DEBUG("Receiver opened for address '%s'", address_.c_str());
  receiver_ = receiver;
  ever_opened_ = true;
  stop_begun_ = false;
  drained_ = false;
  owed_credit_ = 0;
  if (receiver.credit() == 0) {
    receiver.add_credit(state_.options().credit);
  }
  credit_seen_ = state_.options().credit;
  serve();  // closed meanwhile
}

void qpid_receiver::on_message(proton::delivery& delivery, proton::message& message) {
  assert(state_.on_container_thread());
  KV_LOG_DEBUG("Received message on address '%s' (credit %d)", address_.c_str(),
               receiver_.credit());
  const bool kept = kv_barrier(__func__, [&] {
    credit_seen_ = static_cast<std::uint32_t>(std::max(receiver_.credit(), 0));
    if (stop_begun_) {
      delivery.release();
    } else if (takes_replies_) {
      keep_reply(delivery, read(message));
    } else {
      keep_request(delivery, read(message));
    }
  });
  if (!kept) {
    static_cast<void>(kv_barrier(__func__, [&] { delivery.modify(); }));
  }
}

void qpid_receiver::on_empty_delivery() {
  assert(state_.on_container_thread());
  KV_LOG_WARN("Message without content on address '%s', accepting it unhandled", address_.c_str());
  owe_credit(1);
}

void qpid_receiver::on_receiver_drain_finish(proton::receiver&) {
  kv_barrier(__func__, [&] {
    drained_ = true;
    release_buffered();
  });
}

void qpid_receiver::on_receiver_error(proton::receiver& receiver) {
  on_error(receiver.error());
}

void qpid_receiver::on_receiver_close(proton::receiver&) {
  if (!stop_begun_ || !drained_) {
    owner_.drop_connection();
  }
}

void qpid_receiver::on_error(const proton::error_condition& condition) {
  if (!state_.stopping.load()) {
    KV_LOG_ERROR("unexpected error: %s", condition.what().c_str());
  }
}
