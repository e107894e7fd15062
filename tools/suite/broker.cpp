#include "broker.h"

#include <proton/codec.h>
#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/event.h>
#include <proton/listener.h>
#include <proton/netaddr.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/ssl.h>
#include <proton/transport.h>

#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "broker_routing.h"
#include "broker_sasl.h"
#include "common/kv_guard.h"

namespace kv_suite {
namespace {

// Small frames keep a long message from holding up short ones and bound what the library buffers.
constexpr std::uint32_t kMaxFrame = 64 * 1024;
constexpr int kBacklog = 64;
constexpr pn_millis_t kTick = 1000;
// Time that peers get to answer an orderly close.
constexpr pn_millis_t kFarewell = 300;

struct broker_connection {
  pn_connection_t* handle = nullptr;
  broker_clock::time_point accepted;
  bool open = false;
  bool given_up = false;  // its handshake took too long
};

broker_connection* s_state(pn_connection_t* connection) {
  return static_cast<broker_connection*>(pn_connection_get_context(connection));
}

std::string s_peer(pn_transport_t* transport) {
  std::array<char, 128> text{};
  const pn_netaddr_t* address =
      transport == nullptr ? nullptr : pn_transport_remote_addr(transport);
  if (address != nullptr)
    pn_netaddr_str(address, text.data(), text.size());
  return text.data();
}

void s_offer_anonymous_relay(pn_connection_t* connection) {
  pn_data_t* offered = pn_connection_offered_capabilities(connection);
  pn_data_put_array(offered, false, PN_SYMBOL);
  pn_data_enter(offered);
  pn_data_put_symbol(offered, pn_bytes(strlen("ANONYMOUS-RELAY"), "ANONYMOUS-RELAY"));
  pn_data_exit(offered);
}

void s_close(pn_connection_t* connection, const char* condition, const char* text) {
  pn_condition_set_name(pn_connection_condition(connection), condition);
  pn_condition_set_description(pn_connection_condition(connection), text);
  pn_connection_close(connection);
}

}  // namespace

class broker::implementation {
 public:
  implementation(broker_config config, password_store& passwords, note_handler note)
      : config_(std::move(config)),
        passwords_(passwords),
        note_(std::move(note)),
        routing_(config_, note_) {}

  void start();
  void stop();

  broker_routing& routing() { return routing_; }
  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  void run();
  void handle(pn_event_t* event);
  void handle_listener(pn_event_t* event, pn_event_type_t type);
  void handle_connection(pn_event_t* event, pn_event_type_t type);
  void handle_link(pn_event_t* event, pn_event_type_t type);
  void accept(pn_listener_t* listener);
  void open(pn_connection_t* connection);
  void wake(pn_connection_t* connection);
  void detach_links(pn_connection_t* connection, const pn_session_t* session);
  void transport_closed(pn_connection_t* connection, pn_transport_t* transport);
  void tick();
  void begin_stop();
  void report_listening(const std::string& error, std::uint16_t port);

  // Constant after start.
  broker_config config_;
  std::unique_ptr<pn_ssl_domain_t, kv_free_pointer<pn_ssl_domain_free>> tls_;
  std::unique_ptr<pn_proactor_t, kv_free_pointer<pn_proactor_free>> proactor_;
  std::thread thread_;

  // The broker's thread only.
  password_store& passwords_;
  note_handler note_;
  broker_routing routing_;
  std::set<pn_connection_t*> connections_;
  pn_listener_t* listener_ = nullptr;
  bool stopping_ = false;
  bool done_ = false;

  // Shared: the listener's fate.
  std::mutex mutex_;
  std::condition_variable listening_changed_;
  bool listening_known_ = false;
  std::string listening_error_;
  std::uint16_t port_ = 0;
};

void broker::implementation::start() {
  if (!config_.certificate_path.empty()) {
    tls_.reset(pn_ssl_domain(PN_SSL_MODE_SERVER));
    if (tls_ == nullptr ||
        pn_ssl_domain_set_credentials(tls_.get(), config_.certificate_path.c_str(),
                                      config_.key_path.c_str(), nullptr) != 0) {
      throw std::runtime_error("cannot use the certificate " + config_.certificate_path);
    }
  }
  proactor_.reset(pn_proactor());
  listener_ = pn_listener();
  std::array<char, PN_MAX_ADDR> address{};
  pn_proactor_addr(address.data(), address.size(), config_.host.c_str(), config_.port.c_str());
  pn_proactor_listen(proactor_.get(), listener_, address.data(), kBacklog);
  pn_proactor_set_timeout(proactor_.get(), kTick);
  thread_ = std::thread([this] { run(); });

  std::unique_lock lock(mutex_);
  listening_changed_.wait(lock, [this] { return listening_known_; });
  if (!listening_error_.empty()) {
    const std::string error = listening_error_;
    lock.unlock();
    stop();
    throw std::runtime_error("cannot listen on " + config_.host + ":" + config_.port + ": " +
                             error);
  }
}

void broker::implementation::stop() {
  if (!thread_.joinable())
    return;
  pn_proactor_interrupt(proactor_.get());
  thread_.join();
}

void broker::implementation::report_listening(const std::string& error, std::uint16_t port) {
  const std::lock_guard lock(mutex_);
  if (listening_known_)
    return;
  listening_known_ = true;
  listening_error_ = error;
  port_ = port;
  listening_changed_.notify_all();
}

void broker::implementation::run() {
  while (!done_) {
    pn_event_batch_t* batch = pn_proactor_wait(proactor_.get());
    while (pn_event_t* event = pn_event_batch_next(batch))
      handle(event);
    routing_.wake_written();
    pn_proactor_done(proactor_.get(), batch);
  }
}

void broker::implementation::handle(pn_event_t* event) {
  const pn_event_type_t type = pn_event_type(event);
  switch (type) {
    case PN_LISTENER_OPEN:
    case PN_LISTENER_ACCEPT:
    case PN_LISTENER_CLOSE:
      return handle_listener(event, type);
    case PN_LINK_REMOTE_OPEN:
    case PN_LINK_REMOTE_CLOSE:
    case PN_LINK_REMOTE_DETACH:
    case PN_LINK_FLOW:
    case PN_DELIVERY:
      return handle_link(event, type);
    case PN_PROACTOR_TIMEOUT:
      return tick();
    case PN_PROACTOR_INTERRUPT:
      return begin_stop();
    case PN_PROACTOR_INACTIVE:
      done_ = stopping_;
      return;
    default:
      return handle_connection(event, type);
  }
}

void broker::implementation::handle_listener(pn_event_t* event, pn_event_type_t type) {
  pn_listener_t* listener = pn_event_listener(event);
  if (type == PN_LISTENER_ACCEPT)
    return accept(listener);
  if (type == PN_LISTENER_OPEN) {
    std::array<char, 64> host{};
    std::array<char, 16> port{};
    pn_netaddr_host_port(pn_listener_addr(listener), host.data(), host.size(), port.data(),
                         port.size());
    return report_listening({}, static_cast<std::uint16_t>(std::stoi(port.data())));
  }
  const char* text = pn_condition_get_description(pn_listener_condition(listener));
  report_listening(text == nullptr ? "closed" : text, 0);
  listener_ = nullptr;
}

void broker::implementation::accept(pn_listener_t* listener) {
  pn_transport_t* transport = pn_transport();
  pn_transport_set_server(transport);
  pn_transport_set_max_frame(transport, kMaxFrame);
  pn_transport_set_idle_timeout(transport, static_cast<pn_millis_t>(config_.idle_limit.count()));
  // Without this a client could leave SASL out and begin with AMQP itself.
  pn_transport_require_auth(transport, true);
  if (tls_ != nullptr) {
    pn_transport_require_encryption(transport, true);
    pn_ssl_init(pn_ssl(transport), tls_.get(), nullptr);
  }
  offer_plain(transport, passwords_, tls_ != nullptr);

  pn_connection_t* connection = pn_connection();
  pn_connection_set_context(
      connection, new broker_connection{.handle = connection, .accepted = broker_clock::now()});
  connections_.insert(connection);
  pn_listener_accept2(listener, connection, transport);
  if (stopping_)
    pn_connection_wake(connection);
}

void broker::implementation::handle_connection(pn_event_t* event, pn_event_type_t type) {
  pn_connection_t* connection = pn_event_connection(event);
  if (connection == nullptr || s_state(connection) == nullptr)
    return;
  switch (type) {
    case PN_CONNECTION_REMOTE_OPEN:
      return open(connection);
    case PN_CONNECTION_WAKE:
      return wake(connection);
    case PN_CONNECTION_REMOTE_CLOSE:
      detach_links(connection, nullptr);
      return pn_connection_close(connection);
    case PN_SESSION_REMOTE_OPEN:
      // No session window: what arrives is taken out of the library at once, so that a window would
      // only make the sender's library move the rest of a large message about.
      return pn_session_open(pn_event_session(event));
    case PN_SESSION_REMOTE_CLOSE:
      detach_links(connection, pn_event_session(event));
      pn_session_close(pn_event_session(event));
      return pn_session_free(pn_event_session(event));
    case PN_TRANSPORT_CLOSED:
      return transport_closed(connection, pn_event_transport(event));
    default:
      return;
  }
}

void broker::implementation::open(pn_connection_t* connection) {
  s_state(connection)->open = true;
  pn_connection_set_container(connection, "kv-av-suite");
  s_offer_anonymous_relay(connection);
  pn_connection_open(connection);
  pn_transport_t* transport = pn_connection_transport(connection);
  if (!pn_transport_is_authenticated(transport)) {
    note_("refused " + s_peer(transport) + ": not authenticated");
    s_close(connection, "amqp:unauthorized-access", "authentication is required");
  } else if (stopping_) {
    s_close(connection, "amqp:connection:forced", "the broker is ending");
  }
}

// Woken to write what was sent on its links, or to be given up.
void broker::implementation::wake(pn_connection_t* connection) {
  const broker_connection* state = s_state(connection);
  if (stopping_ && state->open) {
    detach_links(connection, nullptr);
    return s_close(connection, "amqp:connection:forced", "the broker is ending");
  }
  if (!state->given_up && !stopping_)
    return;
  pn_transport_t* transport = pn_connection_transport(connection);
  if (transport == nullptr)
    return;
  pn_transport_close_tail(transport);
  pn_transport_close_head(transport);
}

void broker::implementation::handle_link(pn_event_t* event, pn_event_type_t type) {
  pn_link_t* link = pn_event_link(event);
  pn_connection_t* connection = pn_event_connection(event);
  if (connection == nullptr || s_state(connection) == nullptr ||
      (pn_connection_state(connection) & PN_LOCAL_ACTIVE) == 0) {
    return;  // refused, or already closed: whatever it still sends is ignored
  }
  switch (type) {
    case PN_LINK_REMOTE_OPEN:
      return routing_.attach(link);
    case PN_LINK_FLOW:
      return routing_.flow(link);
    case PN_DELIVERY:
      return routing_.delivery(pn_event_delivery(event));
    default:
      routing_.detach(std::span(&link, 1));
      pn_link_close(link);
      return pn_link_free(link);
  }
}

void broker::implementation::detach_links(pn_connection_t* connection,
                                          const pn_session_t* session) {
  std::vector<pn_link_t*> links;
  for (pn_link_t* link = pn_link_head(connection, 0); link != nullptr;
       link = pn_link_next(link, 0)) {
    if (session == nullptr || pn_link_session(link) == session)
      links.push_back(link);
  }
  routing_.detach(links);
}

void broker::implementation::transport_closed(pn_connection_t* connection,
                                              pn_transport_t* transport) {
  detach_links(connection, nullptr);
  const std::unique_ptr<broker_connection> gone{s_state(connection)};
  pn_connection_set_context(connection, nullptr);
  connections_.erase(connection);
  if (stopping_ && connections_.empty())
    pn_proactor_cancel_timeout(proactor_.get());
  pn_condition_t* condition = pn_transport_condition(transport);
  if (!gone->open && pn_condition_is_set(condition)) {
    const char* text = pn_condition_get_description(condition);
    note_("refused " + s_peer(transport) + ": " + (text == nullptr ? "no reason" : text));
  }
}

void broker::implementation::tick() {
  if (stopping_) {  // the farewell is over
    pn_proactor_disconnect(proactor_.get(), nullptr);
    return;
  }
  routing_.tidy();
  const auto limit = broker_clock::now() - config_.handshake_limit;
  for (pn_connection_t* connection : connections_) {
    broker_connection* state = s_state(connection);
    if (state->open || state->given_up || state->accepted > limit)
      continue;
    state->given_up = true;
    pn_connection_wake(connection);
  }
  pn_proactor_set_timeout(proactor_.get(), kTick);
}

void broker::implementation::begin_stop() {
  stopping_ = true;
  if (listener_ != nullptr)
    pn_listener_close(listener_);
  for (pn_connection_t* connection : connections_)
    pn_connection_wake(connection);
  if (connections_.empty()) {
    pn_proactor_cancel_timeout(proactor_.get());
  } else {
    pn_proactor_set_timeout(proactor_.get(), kFarewell);
  }
}

broker::broker(broker_config config, password_store& passwords, note_handler note)
    : implementation_(
          std::make_unique<implementation>(std::move(config), passwords, std::move(note))) {}

broker::~broker() {
  stop();
}

void broker::add_service(const std::string& queue, service_handler handler) {
  implementation_->routing().add_service(queue, std::move(handler));
}

void broker::start() {
  implementation_->start();
}

std::uint16_t broker::port() const {
  return implementation_->port();
}

void broker::stop() {
  implementation_->stop();
}

}  // namespace kv_suite
