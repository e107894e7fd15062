#include "broker_routing.h"

#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/disposition.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace kv_suite {
namespace {

// Credit that a producer holds; topped up when half of it is used.
constexpr int kProducerCredit = 500;
constexpr std::size_t kMaxAddress = 1024;

consumer* s_consumer(pn_link_t* link) {
  return static_cast<consumer*>(pn_link_get_context(link));
}

producer* s_producer(pn_link_t* link) {
  return static_cast<producer*>(pn_link_get_context(link));
}

pn_connection_t* s_connection(pn_link_t* link) {
  return pn_session_connection(pn_link_session(link));
}

void s_refuse(pn_link_t* link, const char* condition, const char* text) {
  pn_link_open(link);
  pn_condition_set_name(pn_link_condition(link), condition);
  pn_condition_set_description(pn_link_condition(link), text);
  pn_link_close(link);
}

const char* s_address(pn_terminus_t* terminus) {
  const char* address = pn_terminus_get_address(terminus);
  return address == nullptr ? "" : address;
}

std::string s_random_name() {
  std::array<unsigned char, 16> bytes{};
  std::array<char, 33> text{};
  randombytes_buf(bytes.data(), bytes.size());
  sodium_bin2hex(text.data(), text.size(), bytes.data(), bytes.size());
  return std::string("temporary-") + text.data();
}

}  // namespace

void broker_routing::add_service(const std::string& queue, service_handler handler) {
  find_or_make(queue)->service = std::move(handler);
}

broker_queue_entry* broker_routing::find_or_make(const std::string& name) {
  if (const auto found = queues_.find(name); found != queues_.end())
    return found->second.get();
  if (queues_.size() >= config_.max_queues)
    return nullptr;
  auto entry = std::make_unique<broker_queue_entry>(
      broker_queue_entry{.name = name, .messages = broker_queue(config_.limits)});
  return queues_.emplace(name, std::move(entry)).first->second.get();
}

std::string broker_routing::make_temporary(pn_terminus_t* terminus) {
  const std::string name = s_random_name();
  broker_queue_entry* queue = find_or_make(name);
  if (queue == nullptr)
    return {};
  queue->temporary = true;
  pn_terminus_set_address(terminus, name.c_str());
  return name;
}

void broker_routing::attach(pn_link_t* link) {
  if (pn_link_is_sender(link)) {
    attach_consumer(link);
  } else {
    attach_producer(link);
  }
}

void broker_routing::attach_consumer(pn_link_t* link) {
  pn_terminus_t* source = pn_link_source(link);
  pn_terminus_copy(source, pn_link_remote_source(link));
  pn_terminus_copy(pn_link_target(link), pn_link_remote_target(link));
  const std::string address =
      pn_terminus_is_dynamic(source) ? make_temporary(source) : s_address(source);
  if (address.empty() || address.size() > kMaxAddress) {
    return s_refuse(link, "amqp:not-found", "the source has no address");
  }
  broker_queue_entry* queue = find_or_make(address);
  if (queue == nullptr)
    return s_refuse(link, "amqp:resource-limit-exceeded", "too many queues");

  auto* made = new consumer{.link = link, .queue = queue};
  made->settles_on_send = pn_link_remote_snd_settle_mode(link) == PN_SND_SETTLED;
  pn_link_set_snd_settle_mode(link, pn_link_remote_snd_settle_mode(link));
  pn_link_set_context(link, made);
  queue->consumers.push_back(made);
  pn_link_open(link);
}

void broker_routing::attach_producer(pn_link_t* link) {
  pn_terminus_t* target = pn_link_target(link);
  if (pn_terminus_get_type(pn_link_remote_target(link)) == PN_COORDINATOR) {
    return s_refuse(link, "amqp:not-implemented", "no transactions");
  }
  pn_terminus_copy(pn_link_source(link), pn_link_remote_source(link));
  pn_terminus_copy(target, pn_link_remote_target(link));
  const bool dynamic = pn_terminus_is_dynamic(target);
  const std::string address = dynamic ? make_temporary(target) : s_address(target);
  if (address.size() > kMaxAddress || (dynamic && address.empty())) {
    return s_refuse(link, "amqp:not-found", "no such target");
  }
  broker_queue_entry* queue = address.empty() ? nullptr : find_or_make(address);
  if (!address.empty() && queue == nullptr) {
    return s_refuse(link, "amqp:resource-limit-exceeded", "too many queues");
  }
  if (queue != nullptr)
    ++queue->producers;
  pn_link_set_context(link, new producer{.queue = queue, .partial = {}});
  pn_link_set_snd_settle_mode(link, pn_link_remote_snd_settle_mode(link));
  pn_link_set_max_message_size(link, config_.max_message_bytes);
  pn_link_open(link);
  pn_link_flow(link, kProducerCredit);
}

void broker_routing::detach(std::span<pn_link_t* const> links) {
  std::vector<std::unique_ptr<consumer>> gone;
  for (pn_link_t* link : links) {
    if (pn_link_get_context(link) == nullptr)
      continue;
    if (pn_link_is_sender(link)) {
      gone.emplace_back(s_consumer(link));
      std::erase(gone.back()->queue->consumers, gone.back().get());
      pn_link_set_context(link, nullptr);
    } else {
      detach_producer(link);
    }
  }
  for (const auto& from : gone)
    put_back_unsettled(*from);
}

void broker_routing::detach_producer(pn_link_t* link) {
  const std::unique_ptr<producer> gone{s_producer(link)};
  pn_link_set_context(link, nullptr);
  if (gone->queue == nullptr)
    return;
  --gone->queue->producers;
  drop_temporary(gone->queue);
}

void broker_routing::put_back_unsettled(consumer& from) {
  for (const auto& [delivery, message] : from.unsettled) {
    from.queue->messages.put_back(message, put_back_as::failed);
  }
  dispatch(*from.queue);
  drop_temporary(from.queue);
}

void broker_routing::drop_temporary(broker_queue_entry* queue) {
  if (!queue->temporary || !queue->consumers.empty() || queue->producers != 0)
    return;
  queues_.erase(std::string(queue->name));
}

void broker_routing::flow(pn_link_t* link) {
  if (!pn_link_is_sender(link) || pn_link_get_context(link) == nullptr)
    return;
  dispatch(*s_consumer(link)->queue);
  // What is left of a drained credit is given back at once: the queue had nothing for it.
  if (pn_link_get_drain(link))
    pn_link_drained(link);
}

void broker_routing::delivery(pn_delivery_t* delivery) {
  pn_link_t* link = pn_delivery_link(delivery);
  if (pn_link_get_context(link) == nullptr)
    return;
  if (pn_link_is_sender(link)) {
    settle(*s_consumer(link), delivery);
  } else {
    receive(link, delivery, *s_producer(link));
  }
}

void broker_routing::receive(pn_link_t* link, pn_delivery_t* delivery, producer& from) {
  if (!pn_delivery_readable(delivery))
    return;
  const std::size_t pending = pn_delivery_pending(delivery);
  const std::size_t have = from.partial.size();
  if (have + pending > config_.max_message_bytes) {
    pn_condition_set_name(pn_link_condition(link), "amqp:link:message-size-exceeded");
    pn_link_close(link);
    return detach(std::span(&link, 1));
  }
  from.partial.resize(have + pending);
  const ssize_t taken = pn_link_recv(link, from.partial.data() + have, pending);
  from.partial.resize(have + (taken > 0 ? static_cast<std::size_t>(taken) : 0));
  if (pn_delivery_partial(delivery) && !pn_delivery_aborted(delivery))
    return;

  std::string encoded = std::exchange(from.partial, {});
  if (!pn_delivery_aborted(delivery))
    tell(delivery, route(from.queue, std::move(encoded)));
  pn_link_advance(link);
  pn_delivery_settle(delivery);
  const int credit = pn_link_credit(link);
  if (credit < kProducerCredit / 2) {
    pn_link_flow(link, kProducerCredit - credit);
  }
}

// Accepts what is queued; what is refused is told why.
void broker_routing::tell(pn_delivery_t* delivery, verdict result) {
  if (result == verdict::queued) {
    pn_delivery_update(delivery, PN_ACCEPTED);
    return;
  }
  struct refusal {
    const char* condition;
    const char* text;
  };
  static constexpr std::array<refusal, 6> kRefusals{{
      {nullptr, nullptr},
      {"amqp:not-found", "the message names no address"},
      {"amqp:not-found", "the address is too long"},
      {"amqp:resource-limit-exceeded", "the queue is full"},
      {"amqp:decode-error", "the bytes are no message"},
      {"amqp:resource-limit-exceeded", "too many queues"},
  }};
  const refusal& why = kRefusals[static_cast<std::size_t>(result)];
  pn_condition_t* condition = pn_disposition_condition(pn_delivery_local(delivery));
  pn_condition_set_name(condition, why.condition);
  pn_condition_set_description(condition, why.text);
  pn_delivery_update(delivery, PN_REJECTED);
}

broker_routing::verdict broker_routing::route(broker_queue_entry* queue, std::string encoded) {
  message_sections sections;
  if (!read_message_sections(encoded, sections))
    return verdict::no_message;
  if (queue == nullptr) {
    if (sections.to.empty())
      return verdict::no_address;
    if (sections.to.size() > kMaxAddress)
      return verdict::no_queue;
    queue = find_or_make(std::string(sections.to));
    if (queue == nullptr)
      return verdict::too_many_queues;
  }
  if (queue->service)
    return serve(*queue, encoded);
  const auto now = broker_clock::now();
  if (!queue->messages.push(make_broker_message(std::move(encoded), sections, now))) {
    note_("queue " + queue->name + " is full: message rejected");
    return verdict::full;
  }
  dispatch(*queue);
  return verdict::queued;
}

// A reply that cannot be queued is dropped: its requester is gone or does not read.
broker_routing::verdict broker_routing::serve(const broker_queue_entry& queue,
                                              const std::string& encoded) {
  std::optional<service_reply> reply = queue.service(encoded);
  if (!reply || reply->to.empty() || reply->to.size() > kMaxAddress)
    return verdict::queued;
  broker_queue_entry* back = find_or_make(reply->to);
  // A service is never answered by another one, so that two cannot talk for ever.
  if (back != nullptr && !back->service) {
    static_cast<void>(route(back, std::move(reply->encoded)));
  }
  return verdict::queued;
}

consumer* broker_routing::next_with_credit(broker_queue_entry& queue) {
  const std::size_t count = queue.consumers.size();
  for (std::size_t step = 0; step < count; ++step) {
    const std::size_t index = (queue.next_consumer + step) % count;
    if (pn_link_credit(queue.consumers[index]->link) > 0) {
      queue.next_consumer = index + 1;
      return queue.consumers[index];
    }
  }
  return nullptr;
}

void broker_routing::dispatch(broker_queue_entry& queue) {
  const auto now = broker_clock::now();
  while (!queue.messages.empty()) {
    consumer* to = next_with_credit(queue);
    if (to == nullptr)
      return;
    const broker_message_ptr message = queue.messages.take(now);
    if (message == nullptr)
      return;
    send(*to, message, now);
  }
}

void broker_routing::send(consumer& to, const broker_message_ptr& message,
                          broker_clock::time_point now) {
  std::array<char, sizeof to.next_tag> tag{};
  std::memcpy(tag.data(), &to.next_tag, tag.size());
  ++to.next_tag;
  pn_delivery_t* delivery = pn_delivery(to.link, pn_dtag(tag.data(), tag.size()));
  const std::string header = encode_header(header_to_send(*message, now));
  const std::string_view bare = std::string_view(message->encoded).substr(message->bare_offset);
  pn_link_send(to.link, header.data(), header.size());
  pn_link_send(to.link, bare.data(), bare.size());
  pn_link_advance(to.link);
  if (to.settles_on_send) {
    pn_delivery_settle(delivery);
    to.queue->messages.finish(*message);
  } else {
    to.unsettled.emplace(delivery, message);
  }
  // The consumer's connection may be another than the one whose events are handled now: it writes
  // when it is woken.
  pn_connection_t* connection = s_connection(to.link);
  if (std::ranges::find(written_, connection) == written_.end()) {
    written_.push_back(connection);
  }
}

void broker_routing::wake_written() {
  for (pn_connection_t* connection : written_) {
    pn_connection_wake(connection);
  }
  written_.clear();
}

void broker_routing::settle(consumer& at, pn_delivery_t* delivery) {
  const std::uint64_t outcome = pn_delivery_remote_state(delivery);
  const bool final = outcome == PN_ACCEPTED || outcome == PN_REJECTED || outcome == PN_RELEASED ||
                     outcome == PN_MODIFIED || pn_delivery_settled(delivery);
  const auto entry = at.unsettled.find(delivery);
  if (!final || entry == at.unsettled.end())
    return pn_delivery_clear(delivery);

  const broker_message_ptr message = std::move(entry->second);
  at.unsettled.erase(entry);
  broker_queue_entry& queue = *at.queue;
  pn_disposition_t* told = pn_delivery_remote(delivery);
  if (outcome == PN_ACCEPTED || outcome == PN_REJECTED) {
    queue.messages.finish(*message);
  } else if (outcome != PN_MODIFIED) {  // settled without an outcome counts as released
    queue.messages.put_back(message, put_back_as::released);
  } else if (pn_disposition_is_undeliverable(told)) {
    queue.messages.put_back(message, put_back_as::failed_to_end);
  } else {
    queue.messages.put_back(
        message, pn_disposition_is_failed(told) ? put_back_as::failed : put_back_as::released);
  }
  pn_delivery_settle(delivery);
  if (!queue.messages.empty())
    dispatch(queue);
}

void broker_routing::tidy() {
  const auto now = broker_clock::now();
  std::erase_if(queues_, [&](const auto& entry) {
    broker_queue_entry& queue = *entry.second;
    queue.messages.expire(now);
    return queue.messages.held_messages() == 0 && queue.consumers.empty() && queue.producers == 0 &&
           !queue.service;
  });
}

}  // namespace kv_suite
