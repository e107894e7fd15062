#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include "messaging/kv_qpid_connection.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/transport.h>
#include <sodium.h>
#include <proton/error_condition.hpp>
#include <proton/session.hpp>
#include <proton/ssl.hpp>
#include <proton/transport.hpp>
#include <proton/work_queue.hpp>

#include <algorithm>
#include <cassert>
#include <memory>
#include <stdexcept>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_empty_delivery.h"

namespace {

// The connection's C object, for what the C++ binding does not offer.
struct s_connection : proton::connection {
  explicit s_connection(const proton::connection& base) : proton::connection(base) {}
  [[nodiscard]] pn_connection_t* get() const { return pn_object(); }
};

std::string s_address(const kv_qpid_extra_params& params) {
  const bool is_ipv6 = params.host.find(':') != std::string::npos && params.host.front() != '[';
  return (is_ipv6 ? "[" + params.host + "]" : params.host) + ":" + params.port;
}

proton::duration s_duration(kv_ms time) {
  return proton::duration(static_cast<proton::duration::numeric_type>(time.count()));
}

// The library keeps about 700 KB for ever each time it throws over a certificate file: files that
// it would not take are refused before it sees them.
void s_check_certificates(const std::string& path) {
  const std::unique_ptr<BIO, kv_free_pointer<BIO_free>> file{BIO_new_file(path.c_str(), "r")};
  const std::unique_ptr<X509, kv_free_pointer<X509_free>> certificate{
      file ? PEM_read_bio_X509_AUX(file.get(), nullptr, nullptr, nullptr) : nullptr};
  if (!certificate) {
    ERR_clear_error();
    throw std::runtime_error("no trusted certificate in " + path);
  }
}

// Runs a piece of Proton's work with the barrier round it.
template <class Body>
void s_schedule(proton::container& container, kv_ms delay, Body body) {
  container.schedule(s_duration(delay), [body] { kv_barrier("container timer", body); });
}

}  // namespace

std::vector<qpid_receiver*> kv_qpid_receivers::all() {
  const std::lock_guard lock(mutex_);
  std::vector<qpid_receiver*> result;
  for (const auto& [address, receiver] : receivers_) {
    result.push_back(receiver.get());
  }
  return result;
}

qpid_connection::qpid_connection(kv_qpid_state& state, kv_qpid_receivers& receivers)
    : state_(state),
      receivers_(receivers),
      sender_(state, *this),
      backoff_(state.options().backoff_first, state.options().backoff_longest,
               [](std::uint32_t bound) { return randombytes_uniform(bound); }) {
  sender_.on_flush([this] { serve_receivers(); });
}

// ---- the thread ----

// An exception ends a container, so that another takes its place; the pause keeps a broker that
// causes one each time from being flooded.
void qpid_connection::run() {
  state_.container_thread = std::this_thread::get_id();
  kv_qpid_watch_deliveries();
  while (!state_.stopping.load()) {
    kv_barrier(__func__, [&] { run_container(); });
    if (!state_.stopping.load()) {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, std::max(backoff_.next(), state_.options().tick),
                        [&] { return state_.stopping.load(); });
    }
  }
  KV_LOG_DEBUG("Container thread ending");
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void qpid_connection::run_container() {
  proton::container container;
  container.auto_stop(false);  // the container outlives its connections
  container_ = &container;
  KV_LOG_DEBUG("Running container with id: %s", container.id().c_str());
  bool is_first = false;
  {
    const std::lock_guard lock(mutex_);
    shared_container_ = &container;
    is_first = !started_;
    changed_.notify_all();
  }
  if (!is_first) {
    s_schedule(container, kv_ms{0}, [this] { connect(); });
  }
  struct withdraw {
    qpid_connection& self;
    ~withdraw() { self.leave_container(); }
  } const guard{*this};
  container.run();
  KV_LOG_DEBUG("Container run() exited normally");
}

// Before the container frees what other threads still reach.
void qpid_connection::leave_container() {
  kv_barrier(__func__, [&] { lost(); });
  connection_ = {};
  container_ = nullptr;
  const std::lock_guard lock(mutex_);
  shared_container_ = nullptr;
  connected_ = false;
  changed_.notify_all();
}

bool qpid_connection::start() {
  constexpr kv_ms kPoll{50};
  KV_LOG_DEBUG("Waiting for container to be created...");
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kPoll, [&] { return shared_container_ != nullptr || ended_; })) {
  }
  if (shared_container_ == nullptr) {
    return false;
  }
  KV_LOG_DEBUG("Container created, creating sender...");
  started_ = true;
  s_schedule(*shared_container_, kv_ms{0}, [this] { connect(); });
  return true;
}

bool qpid_connection::stop(kv_clock::time_point deadline) {
  state_.stopping = true;
  const auto close_deadline =
      std::min(deadline, kv_clock::now() + state_.options().deinit_close_limit);
  const bool closing = sender_.post_job([this] { connection_.close(); });
  std::unique_lock lock(mutex_);
  changed_.notify_all();
  if (closing) {
    changed_.wait_until(lock, close_deadline, [&] { return !connected_ || ended_; });
  }
  if (shared_container_ != nullptr) {
    shared_container_->stop();
  }
  return changed_.wait_until(lock, deadline, [&] { return ended_; });
}

// ---- making the connection ----

proton::connection_options qpid_connection::connection_options() {
  const kv_qpid_extra_params& params = state_.params;
  proton::connection_options options;
  options.handler(*this)
      .idle_timeout(s_duration(state_.options().idle_timeout))
      .user(params.user)
      .password(params.password)
      .sasl_allowed_mechs("PLAIN");
  if (params.plain_tcp) {
    options.sasl_allow_insecure_mechs(true);
    if (!warned_plain_) {
      KV_LOG_WARN("The connection to the broker is not encrypted: the password travels in clear");
      warned_plain_ = true;
    }
  } else if (!params.cert_path.empty()) {
    s_check_certificates(params.cert_path);
    options.ssl_client_options(
        proton::ssl_client_options(params.cert_path, proton::ssl::VERIFY_PEER_NAME));
  } else {  // the system's trust store
    options.ssl_client_options(proton::ssl_client_options(proton::ssl::VERIFY_PEER_NAME));
  }
  return options;
}

void qpid_connection::connect() {
  assert(state_.on_container_thread());
  if (state_.stopping.load()) {
    return;
  }
  ++attempt_;
  established_ = false;
  KV_LOG_DEBUG("Creating qpid-proton sender");
  const bool begun = kv_barrier("kv_qpid_create_sender", [&] {
    connection_ = container_->connect(s_address(state_.params), connection_options());
  });
  if (!begun) {  // no such certificate file, an address that cannot be read
    retry();
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    connected_ = true;
  }
  give_up_ = kv_clock::now() + state_.options().connect_timeout;
  watch_attempt(attempt_);
}

// Timers are short: a pending one keeps a stopped container running.
void qpid_connection::watch_attempt(std::uint64_t attempt) {
  if (attempt != attempt_ || established_ || state_.stopping.load()) {
    return;
  }
  if (kv_clock::now() < give_up_) {
    s_schedule(*container_, state_.options().tick, [=, this] { watch_attempt(attempt); });
    return;
  }
  if (connection_) {
    connection_.work_queue().add([=, this] {
      kv_barrier("abort_connection", [&] {
        if (attempt == attempt_) {
          abort_connection();
        }
      });
    });
  }
}

// A close would wait for a peer that does not answer, or for a handshake that hangs.
void qpid_connection::abort_connection() {
  if (!connection_ || established_) {
    return;
  }
  pn_transport_t* transport = pn_connection_transport(s_connection(connection_).get());
  if (transport == nullptr) {
    return;
  }
  pn_condition_t* condition = pn_transport_condition(transport);
  pn_condition_set_name(condition, "amqp:resource-limit-exceeded");
  pn_condition_set_description(condition, "connect time-out expired");
  pn_transport_close_tail(transport);
  pn_transport_close_head(transport);
}

void qpid_connection::sender_opened() {
  established_ = true;
  opened_at_ = kv_clock::now();
}

void qpid_connection::retry() {
  if (state_.stopping.load()) {
    return;
  }
  const kv_ms pause = backoff_.next();
  KV_LOG_DEBUG("Connecting again in %dms", static_cast<int>(pause.count()));
  due_ = kv_clock::now() + pause;
  wait_for_retry(attempt_);
}

void qpid_connection::wait_for_retry(std::uint64_t attempt) {
  if (attempt != attempt_ || state_.stopping.load()) {
    return;
  }
  const auto rest = std::chrono::ceil<kv_ms>(due_ - kv_clock::now());
  if (rest <= kv_ms{0}) {
    connect();
    return;
  }
  s_schedule(*container_, std::min(rest, state_.options().tick),
             [=, this] { wait_for_retry(attempt); });
}

void qpid_connection::drop_connection() {
  assert(state_.on_container_thread());
  if (!connection_) {
    return;
  }
  connection_.close();
  sender_reopens();  // should the broker not answer the close
}

// The connection gets as long as a new one to stand again.
void qpid_connection::sender_reopens() {
  if (established_) {
    established_ = false;
    give_up_ = kv_clock::now() + state_.options().connect_timeout;
    watch_attempt(attempt_);
  }
}

// What belonged to the connection is void; called once or twice for each.
void qpid_connection::lost() {
  assert(state_.on_container_thread());
  state_.generation.fetch_add(1);
  sender_.lost();
  for (qpid_receiver* receiver : receivers_.all()) {
    receiver->lost();
  }
}

void qpid_connection::serve_receivers() {
  for (qpid_receiver* receiver : receivers_.all()) {
    if (connection_) {
      receiver->open(connection_);
    }
    receiver->serve();
  }
}

// ---- handlers ----

void qpid_connection::on_connection_open(proton::connection& connection) {
  kv_barrier(__func__, [&] {
    connection_ = connection;
    sender_.on_connection_open(connection);
    for (qpid_receiver* receiver : receivers_.all()) {
      receiver->on_connection_open(connection);
    }
  });
}

void qpid_connection::on_connection_error(proton::connection& connection) {
  on_error(connection.error());
}

// The broker may leave the socket open for a while; what is sent into it gets no outcome.
void qpid_connection::on_connection_close(proton::connection& connection) {
  kv_barrier(__func__, [&] {
    sender_.blame_in_flight(connection.error());
    lost();
  });
}

void qpid_connection::on_session_error(proton::session& session) {
  on_error(session.error());
}

void qpid_connection::on_session_close(proton::session& session) {
  kv_barrier(__func__, [&] {
    sender_.blame_in_flight(session.error());
    drop_connection();
  });
}

void qpid_connection::on_transport_error(proton::transport& transport) {
  on_error(transport.error());
}

// Comes exactly once for each connection, whatever ended it.
void qpid_connection::on_transport_close(proton::transport&) {
  kv_barrier(__func__, [&] {
    lost();
    connection_ = {};
    const bool stood = opened_at_ != kv_clock::time_point{};
    if (stood && kv_clock::now() - opened_at_ >= state_.options().backoff_reset_after) {
      backoff_.reset();
    }
    opened_at_ = {};
    established_ = false;
    {
      const std::lock_guard lock(mutex_);
      connected_ = false;
      changed_.notify_all();
    }
    retry();
  });
}

void qpid_connection::on_error(const proton::error_condition& condition) {
  if (!state_.stopping.load()) {
    KV_LOG_ERROR("unexpected error: %s", condition.what().c_str());
  }
}
