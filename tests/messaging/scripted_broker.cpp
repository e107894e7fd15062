#include "messaging/scripted_broker.h"

#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/disposition.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/listener.h>
#include <proton/netaddr.h>
#include <proton/proactor.h>
#include <proton/sasl.h>
#include <proton/sasl_plugin.h>
#include <proton/session.h>
#include <proton/terminus.h>
#include <proton/transport.h>
#include <proton/message.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace {

constexpr const char* kUser = "kv-av";

// SASL PLAIN for whoever comes: this broker is about what happens afterwards.
void s_ignore(pn_transport_t*) {}
void s_ignore_bytes(pn_transport_t*, const pn_bytes_t*) {}
const char* s_mechanisms(pn_transport_t*) {
  return "PLAIN";
}
bool s_offer(pn_transport_t* transport) {
  pnx_sasl_set_desired_state(transport, SASL_POSTED_MECHANISMS);
  return true;
}
void s_welcome(pn_transport_t* transport, const char*, const pn_bytes_t*) {
  pnx_sasl_set_succeeded(transport, kUser, nullptr);
  pnx_sasl_set_desired_state(transport, SASL_POSTED_OUTCOME);
}
bool s_is_no_client(pn_transport_t*) {
  return false;
}
bool s_knows_no_mechanism(pn_transport_t*, const char*) {
  return false;
}
ssize_t s_no_size(pn_transport_t*) {
  return 0;
}
ssize_t s_no_code(pn_transport_t*, pn_bytes_t, pn_bytes_t*) {
  return 0;
}

constexpr pnx_sasl_implementation kWelcomeAll{
    s_ignore,       s_mechanisms,   s_offer,        s_is_no_client,
    s_ignore,       s_welcome,      s_ignore_bytes, s_knows_no_mechanism,
    s_ignore_bytes, s_ignore_bytes, s_is_no_client, s_no_size,
    s_no_code,      s_no_code};

void s_set_condition(pn_condition_t* condition, const std::string& name) {
  pn_condition_set_name(condition, name.c_str());
  pn_condition_set_description(condition, "as the script says");
}

std::string s_queue_of(pn_link_t* link) {
  const char* address = pn_terminus_get_address(pn_link_source(link));
  return address == nullptr ? "" : address;
}

std::string s_to(const std::string& bytes) {
  proton::message message;
  message.decode(std::vector<char>(bytes.begin(), bytes.end()));
  return message.to();
}

bool s_is_closed(pn_link_t* link) {
  pn_connection_t* connection = pn_session_connection(pn_link_session(link));
  return ((pn_link_state(link) & pn_connection_state(connection)) & PN_LOCAL_ACTIVE) == 0;
}

}  // namespace

scripted_broker::scripted_broker(peer_script script)
    : proactor_(pn_proactor(), pn_proactor_free), script_(std::move(script)) {
  pn_listener_t* listener = pn_listener();
  pn_proactor_listen(proactor_.get(), listener, "127.0.0.1:0", 16);
  for (bool listening = false; !listening;) {  // nothing else can happen before
    pn_event_batch_t* batch = pn_proactor_wait(proactor_.get());
    while (pn_event_t* event = pn_event_batch_next(batch)) {
      listening = listening || pn_event_type(event) == PN_LISTENER_OPEN;
    }
    pn_proactor_done(proactor_.get(), batch);
  }
  std::array<char, 64> host{};
  std::array<char, 16> port{};
  pn_netaddr_host_port(pn_listener_addr(listener), host.data(), host.size(), port.data(),
                       port.size());
  port_ = port.data();
  thread_ = std::thread([this] { run(); });
}

scripted_broker::~scripted_broker() {
  pn_proactor_interrupt(proactor_.get());
  thread_.join();
}

kv_amqp_config_ptr scripted_broker::client_config() const {
  kv_amqp_config_ptr config{kv_amqp_config_new()};
  config->broker_host = strdup("127.0.0.1");
  config->broker_port = strdup(port_.c_str());
  config->broker_user = strdup(kUser);
  config->broker_password = strdup("any");
  config->plain_tcp = 1;
  return config;
}

// ---- any thread ----

void scripted_broker::push(const std::string& queue, std::string bytes) {
  const std::lock_guard lock(mutex_);
  queues_[queue].messages.push_back(std::move(bytes));
  std::ranges::for_each(connections_, pn_connection_wake);
}

void scripted_broker::set_credit(int credit) {
  const std::lock_guard lock(mutex_);
  script_.credit = credit;
  std::ranges::for_each(connections_, pn_connection_wake);
}

void scripted_broker::set_attach(peer_attach attach) {
  const std::lock_guard lock(mutex_);
  script_.attach = attach;
}

int scripted_broker::opened_links() const {
  const std::lock_guard lock(mutex_);
  return opened_links_;
}

int scripted_broker::attempted_links() const {
  const std::lock_guard lock(mutex_);
  return attempted_links_;
}

int scripted_broker::connections() const {
  const std::lock_guard lock(mutex_);
  return opened_connections_;
}

int scripted_broker::received(const std::string& to) const {
  const std::lock_guard lock(mutex_);
  const auto found = received_.find(to);
  return found == received_.end() ? 0 : found->second;
}

int scripted_broker::delivered(const std::string& queue) const {
  const std::lock_guard lock(mutex_);
  const auto found = queues_.find(queue);
  return found == queues_.end() ? 0 : found->second.delivered;
}

int scripted_broker::settled(const std::string& queue, std::uint64_t outcome) const {
  const std::lock_guard lock(mutex_);
  const auto found = queues_.find(queue);
  if (found == queues_.end() || !found->second.settled.contains(outcome)) {
    return 0;
  }
  return found->second.settled.at(outcome);
}

std::string scripted_broker::last_bytes(const std::string& to) const {
  const std::lock_guard lock(mutex_);
  const auto found = last_bytes_.find(to);
  return found == last_bytes_.end() ? "" : found->second;
}

// ---- broker's thread ----

void scripted_broker::run() {
  while (!done_) {
    pn_event_batch_t* batch = pn_proactor_wait(proactor_.get());
    while (pn_event_t* event = pn_event_batch_next(batch)) {
      handle(event);
    }
    pn_proactor_done(proactor_.get(), batch);
  }
}

void scripted_broker::handle(pn_event_t* event) {
  pn_connection_t* connection = pn_event_connection(event);
  pn_link_t* link = pn_event_link(event);
  switch (pn_event_type(event)) {
    case PN_LISTENER_ACCEPT:
      return accept_connection(event);
    case PN_PROACTOR_INTERRUPT:
      done_ = true;
      return;
    case PN_CONNECTION_REMOTE_OPEN: {
      pn_connection_open(connection);
      const std::lock_guard lock(mutex_);
      ++opened_connections_;
      return;
    }
    case PN_SESSION_REMOTE_OPEN:
      return pn_session_open(pn_event_session(event));
    case PN_LINK_REMOTE_OPEN:
      return attach(link);
    case PN_LINK_FLOW:
      return serve_all();
    case PN_DELIVERY:
      return delivery(pn_event_delivery(event));
    case PN_CONNECTION_WAKE:
      return wake(connection);
    case PN_LINK_REMOTE_CLOSE:
      return_unsettled([&](pn_delivery_t* held) { return pn_delivery_link(held) == link; });
      std::erase(incoming_, link);
      std::erase(outgoing_, link);
      std::erase(condemned_, link);
      return pn_link_close(link);
    case PN_SESSION_REMOTE_CLOSE:
      return pn_session_close(pn_event_session(event));
    case PN_CONNECTION_REMOTE_CLOSE:
      return pn_connection_close(connection);
    case PN_TRANSPORT_CLOSED: {
      const auto is_of_it = [&](pn_link_t* other) {
        return pn_session_connection(pn_link_session(other)) == connection;
      };
      return_unsettled([&](pn_delivery_t* held) { return is_of_it(pn_delivery_link(held)); });
      std::erase_if(incoming_, is_of_it);
      std::erase_if(outgoing_, is_of_it);
      std::erase_if(partial_,
                    [&](const auto& held) { return is_of_it(pn_delivery_link(held.first)); });
      std::erase_if(condemned_, is_of_it);
      const std::lock_guard lock(mutex_);
      std::erase(connections_, connection);
      std::ranges::for_each(connections_, pn_connection_wake);  // for what is delivered again
      return;
    }
    default:
      return;
  }
}

void scripted_broker::accept_connection(pn_event_t* event) {
  pn_transport_t* transport = pn_transport();
  pn_transport_set_server(transport);
  static_cast<void>(pn_sasl(transport));
  pnx_sasl_set_implementation(transport, &kWelcomeAll, nullptr);
  const std::lock_guard lock(mutex_);
  if (script_.max_frame != 0) {
    pn_transport_set_max_frame(transport, script_.max_frame);
  }
  pn_connection_t* connection = pn_connection();
  connections_.push_back(connection);
  pn_listener_accept2(pn_event_listener(event), connection, transport);
}

void scripted_broker::attach(pn_link_t* link) {
  pn_terminus_copy(pn_link_source(link), pn_link_remote_source(link));
  pn_terminus_copy(pn_link_target(link), pn_link_remote_target(link));
  if (pn_link_is_sender(link)) {
    pn_link_open(link);
    outgoing_.push_back(link);
    return serve_all();
  }
  const std::lock_guard lock(mutex_);
  ++attempted_links_;
  if (script_.attach == peer_attach::ignore) {
    return;
  }
  pn_link_open(link);
  if (script_.attach == peer_attach::refuse) {
    pn_terminus_set_type(pn_link_target(link), PN_UNSPECIFIED);
    s_set_condition(pn_link_condition(link), script_.condition);
    return pn_link_close(link);
  }
  ++opened_links_;
  incoming_.push_back(link);
  pn_link_flow(link, script_.credit);
}

void scripted_broker::wake(pn_connection_t* connection) {
  for (pn_link_t* link : incoming_) {
    if (pn_session_connection(pn_link_session(link)) == connection) {
      give_credit(link);
    }
  }
  serve_all();
}

void scripted_broker::give_credit(pn_link_t* link) {
  const std::lock_guard lock(mutex_);
  if (script_.credit > pn_link_credit(link)) {
    pn_link_flow(link, script_.credit - pn_link_credit(link));
  }
}

// One client at a time is all that the tests need: links of other connections are served at their
// next event.
void scripted_broker::serve_all() {
  for (pn_link_t* link : outgoing_) {
    const std::lock_guard lock(mutex_);
    queue_state& queue = queues_[s_queue_of(link)];
    while (pn_link_credit(link) > 0 && !queue.messages.empty()) {
      ++next_tag_;
      pn_delivery_t* held =
          pn_delivery(link, pn_dtag(reinterpret_cast<const char*>(&next_tag_), sizeof next_tag_));
      std::string bytes = std::move(queue.messages.front());
      queue.messages.pop_front();
      pn_link_send(link, bytes.data(), bytes.size());
      pn_link_advance(link);
      ++queue.delivered;
      unsettled_.emplace(held, std::move(bytes));
    }
    if (pn_link_get_drain(link)) {
      pn_link_drained(link);
    }
  }
}

void scripted_broker::delivery(pn_delivery_t* delivery) {
  pn_link_t* link = pn_delivery_link(delivery);
  if (pn_link_is_sender(link)) {
    return settle(delivery);
  }
  if (std::ranges::find(condemned_, link) != condemned_.end()) {
    s_set_condition(pn_session_condition(pn_link_session(link)), "amqp:session:errant-link");
    return pn_session_close(pn_link_session(link));
  }
  if (!s_is_closed(link) && pn_delivery_readable(delivery)) {
    take(delivery);
  }
}

void scripted_broker::take(pn_delivery_t* delivery) {
  pn_link_t* link = pn_delivery_link(delivery);
  std::string portion(pn_delivery_pending(delivery), '\0');
  pn_link_recv(link, portion.data(), portion.size());
  partial_[delivery] += portion;
  if (pn_delivery_partial(delivery)) {
    if (script_.reject_at_first_frame) {
      partial_.erase(delivery);
      pn_delivery_update(delivery, PN_REJECTED);
      pn_delivery_settle(delivery);
    }
    return;
  }
  const std::string bytes = std::move(partial_[delivery]);
  partial_.erase(delivery);
  pn_link_advance(link);
  const std::string to = s_to(bytes);
  {
    const std::lock_guard lock(mutex_);
    ++received_[to];
    last_bytes_[to] = bytes;
  }
  if (script_.gather == 0) {
    return answer(delivery, to);
  }
  gathered_.emplace_back(delivery, to);
  if (gathered_.size() == script_.gather) {
    script_.gather = 0;
    answer_gathered();
  }
}

peer_answer scripted_broker::choose(const std::string& to) const {
  return script_.answer ? script_.answer(to) : peer_answer::accept;
}

// The closing first: none of the others gets an outcome then.
void scripted_broker::answer_gathered() {
  std::ranges::stable_partition(
      gathered_, [&](const auto& held) { return choose(held.second) != peer_answer::accept; });
  for (const auto& [delivery, to] : gathered_) {
    if (s_is_closed(pn_delivery_link(delivery))) {
      break;
    }
    answer(delivery, to);
  }
  gathered_.clear();
}

void scripted_broker::answer(pn_delivery_t* delivery, const std::string& to) {
  pn_link_t* link = pn_delivery_link(delivery);
  const peer_answer chosen = choose(to);
  switch (chosen) {
    case peer_answer::accept:
    case peer_answer::reject:
      pn_delivery_update(delivery, chosen == peer_answer::accept ? PN_ACCEPTED : PN_REJECTED);
      pn_delivery_settle(delivery);
      return give_credit(link);
    case peer_answer::hold:
      return;
    case peer_answer::close_link_then_session:
      condemned_.push_back(link);
      [[fallthrough]];
    case peer_answer::close_link:
      s_set_condition(pn_link_condition(link), script_.condition);
      return pn_link_close(link);
    case peer_answer::close_connection: {
      pn_connection_t* connection = pn_session_connection(pn_link_session(link));
      s_set_condition(pn_connection_condition(connection), script_.condition);
      return pn_connection_close(connection);
    }
  }
}

void scripted_broker::settle(pn_delivery_t* delivery) {
  const auto held = unsettled_.find(delivery);
  if (held == unsettled_.end() || !pn_delivery_updated(delivery)) {
    return;
  }
  const std::uint64_t outcome = pn_delivery_remote_state(delivery);
  {
    const std::lock_guard lock(mutex_);
    queue_state& queue = queues_[s_queue_of(pn_delivery_link(delivery))];
    ++queue.settled[outcome];
    if (outcome == PN_RELEASED || outcome == PN_MODIFIED) {
      queue.messages.push_back(std::move(held->second));
    }
  }
  unsettled_.erase(held);
  pn_delivery_settle(delivery);
  serve_all();
}

void scripted_broker::return_unsettled(const std::function<bool(pn_delivery_t*)>& is_lost) {
  const std::lock_guard lock(mutex_);
  for (auto held = unsettled_.begin(); held != unsettled_.end();) {
    if (!is_lost(held->first)) {
      ++held;
      continue;
    }
    queues_[s_queue_of(pn_delivery_link(held->first))].messages.push_back(std::move(held->second));
    held = unsettled_.erase(held);
  }
}
