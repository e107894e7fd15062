#include "messaging/kv_qpid_proton_mt_interface.h"

#include <sodium.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_requests.h"
#include "messaging/kv_qpid_transport.h"

namespace {

// Made once per process: the number keeps apart processes whose ids repeat.
const std::string& s_reply_queue_name() {
  static const std::string name = KV_REPLY_QUEUE_PREFIX + std::to_string(getpid()) + "-" +
                                  std::to_string(randombytes_random() & 0x7FFFFFFFU);
  return name;
}

// Counts a request of this process while it is under way.
class s_call {
 public:
  explicit s_call(kv_qpid_transport& transport) : transport_(transport) {
    const std::lock_guard lock(transport_.calls_mutex);
    ++transport_.calls;
  }
  s_call(const s_call&) = delete;
  s_call& operator=(const s_call&) = delete;
  ~s_call() {
    const std::lock_guard lock(transport_.calls_mutex);
    --transport_.calls;
    transport_.calls_changed.notify_all();
  }

 private:
  kv_qpid_transport& transport_;
};

// ---- client side ----

// Announces a request's reply while the request is under way.
class s_expectation {
 public:
  s_expectation(qpid_receiver& receiver, const proton::message_id& id)
      : receiver_(receiver), id_(id) {
    receiver_.expect(id_);
  }
  s_expectation(const s_expectation&) = delete;
  s_expectation& operator=(const s_expectation&) = delete;
  ~s_expectation() { receiver_.forget(id_); }

 private:
  qpid_receiver& receiver_;
  const proton::message_id& id_;
};

struct s_request {
  const char* service;
  kv_ms timeout;
  kv_ms extra_time;
  const kv_const_message_t* message;
};

std::string_view s_lent_data(const kv_const_message_t& message) {
  return message.data == nullptr
             ? std::string_view{}
             : std::string_view{static_cast<const char*>(message.data), message.data_size};
}

kv_outgoing s_build_request(const s_request& request, const proton::message_id& id,
                            const std::string& reply_queue) {
  if (request.message->json == nullptr) {
    throw std::runtime_error("copy_kv_msg_to_vector_msg(): Empty message");
  }
  proton::message message;
  message.id(id);
  message.to(request.service);
  message.reply_to(reply_queue);
  if (request.timeout > kv_ms{0}) {  // zero stands for no limit, below it there is no number
    message.ttl(
        proton::duration(static_cast<proton::duration::numeric_type>(request.timeout.count())));
  }
  kv_outgoing outgoing;
  outgoing.bytes = kv_encode_message(message, request.message->json, s_lent_data(*request.message));
  outgoing.to = request.service;
  outgoing.identity = kv_message_id_key(id);
  return outgoing;
}

void s_take_reply(kv_received_message&& received, kv_message_t& reply) {
  switch (received.error) {
    case kv_body_error::none:
      break;
    case kv_body_error::empty_message:
      throw std::runtime_error("copy_vector_msg_to_kv_msg(): Empty message");
    case kv_body_error::empty_json:
      throw std::runtime_error("copy_vector_msg_to_kv_msg(): Empty json in message");
    default:
      throw std::runtime_error(kv_body_error_text(received.error));
  }
  kv_text_ptr json{strndup(received.body.json.data(), received.body.json.size())};
  if (!json) {
    throw std::runtime_error(
        "copy_vector_msg_to_kv_msg(): Failed to allocate buffer for received json");
  }
  const std::string& data = received.body.data;
  if (!data.empty()) {
    reply.data = std::malloc(data.size());
    if (reply.data == nullptr) {
      throw std::runtime_error(
          "copy_vector_msg_to_kv_msg(): Failed to allocate buffer for message data");
    }
    std::memcpy(reply.data, data.data(), data.size());
    reply.data_size = data.size();
  }
  reply.json = json.release();
}

void s_send_receive(kv_qpid_transport& transport, const s_request& request, kv_message_t& reply) {
  const auto start = kv_clock::now();
  qpid_sender& sender = transport.connection.sender();
  if (!sender.was_opened()) {
    throw std::runtime_error("Work queue uninitialized");
  }
  qpid_receiver& receiver = kv_qpid_get_receiver(transport, transport.reply_queue);
  KV_LOG_DEBUG("Receiver '%s' credit: %d", transport.reply_queue.c_str(),
               static_cast<int>(receiver.credit()));

  const proton::message_id id = kv_new_message_id();
  kv_outgoing outgoing = s_build_request(request, id, transport.reply_queue);
  const s_expectation expectation(receiver, id);
  const auto patience = request.timeout + request.extra_time;
  outgoing.deadline = start + (request.timeout > kv_ms{0} ? request.timeout : patience);
  sender.send(std::move(outgoing));
  KV_LOG_DEBUG("Request enqueued to '%s'. msg.id: '%s'. msg.reply_to: '%s'", request.service,
               proton::to_string(id).c_str(), transport.reply_queue.c_str());

  const auto spent = std::chrono::duration_cast<kv_ms>(kv_clock::now() - start);
  kv_received_message received = [&] {
    const kv_request_pause pause;
    return receiver.receive(patience - spent, id);
  }();
  KV_LOG_DEBUG("Processing reply with correlation_id '%s'", proton::to_string(id).c_str());
  s_take_reply(std::move(received), reply);
}

// A request that ends with the process is given up, which is no error.
void s_log_failure(const char* text, char* error_text) {
  const std::uint32_t level = kv_amqp_stop_requested() ? KV_LOG_LEVEL_DEBUG : KV_LOG_LEVEL_ERROR;
  KV_LOG_AS(level, "kv_qpid_send_receive_mt", "%s", text);
  if (error_text != nullptr) {
    std::snprintf(error_text, KV_ERROR_TEXT_SIZE, "%s", text);
  }
}

// ---- start and end ----

kv_qpid_extra_params s_params(const kv_amqp_config& config, const kv_qpid_options& options) {
  const auto text = [](const char* value) { return std::string(value != nullptr ? value : ""); };
  return {.host = text(config.broker_host),
          .port = text(config.broker_port),
          .user = text(config.broker_user),
          .password = text(config.broker_password),
          .cert_path = text(config.cert_path),
          .plain_tcp = config.plain_tcp != 0,
          .options = options};
}

void s_wait_for_calls(kv_qpid_transport& transport, kv_clock::time_point deadline) {
  std::unique_lock lock(transport.calls_mutex);
  transport.calls_changed.wait_until(lock, deadline, [&] { return transport.calls == 0; });
}

void s_stop_services(kv_qpid_transport& transport, kv_clock::time_point deadline) {
  const auto receivers = transport.receivers.all();
  for (qpid_receiver* receiver : receivers) {
    if (!receiver->takes_replies()) {
      receiver->close();
    }
  }
  for (qpid_receiver* receiver : receivers) {
    if (!receiver->takes_replies() && !receiver->wait_until_done(deadline)) {
      KV_LOG_WARN(
          "Receiver for address '%s' not stopped in time, the broker delivers again what is "
          "unanswered",
          receiver->address().c_str());
    }
  }
  if (!transport.handler_threads.join(deadline)) {
    KV_LOG_WARN("Handler threads are still at work and are left behind");
  }
}

void s_deinit(kv_qpid_transport& transport) {
  const kv_qpid_options& options = transport.state.options();
  const auto start = kv_clock::now();
  const auto deadline = start + options.deinit_limit;
  s_stop_services(transport, start + options.deinit_answer_limit);
  transport.connection.sender().close(std::min(deadline, start + options.never_opened_wait));
  for (qpid_receiver* receiver : transport.receivers.all()) {
    receiver->close();
  }
  KV_LOG_DEBUG("Connection close requested");
  if (!transport.connection.stop(deadline)) {
    KV_LOG_WARN("The container thread is held up and is left behind");
  }
  transport.container_thread.join(deadline);
  s_wait_for_calls(transport, deadline);
}

}  // namespace

qpid_receiver& kv_qpid_get_receiver(kv_qpid_transport& transport, const std::string& address) {
  bool is_new = false;
  qpid_receiver& receiver = transport.receivers.get(address, [&] {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kv_qpid_get_receiver",
              "Getting qpid-proton receiver for service '%s'", address.c_str());
    is_new = true;
    return std::make_unique<qpid_receiver>(transport.state, transport.connection,
                                           transport.connection.sender(), address);
  });
  if (is_new) {
    transport.connection.sender().post();  // the container thread opens its link
  }
  return receiver;
}

int kv_qpid_init_with(kv_amqp_config* config, const kv_qpid_options& options) {
  KV_LOG_DEBUG("Initializing qpid-proton");
  if (config == nullptr || config->transport != nullptr || sodium_init() < 0) {
    KV_LOG_ERROR("Invalid parameters");
    return -1;
  }
  try {
    const auto transport = std::make_shared<kv_qpid_transport>(s_params(*config, options));
    transport->reply_queue = s_reply_queue_name();
    transport->container_thread.start([transport] { transport->connection.run(); });
    if (!transport->connection.start()) {
      return -1;
    }
    config->transport = transport.get();
    transport->self = transport;
  } catch (const std::exception& error) {
    KV_LOG_ERROR("%s", error.what());
    return -1;
  }
  return 0;
}

int kv_qpid_init(kv_amqp_config* config) {
  return kv_qpid_init_with(config, kv_qpid_options{});
}

bool kv_qpid_wait_connected(kv_amqp_config* config, std::uint32_t limit_ms) {
  if (config == nullptr || config->transport == nullptr) {
    return false;
  }
  return config->transport->connection.sender().wait_until_opened(kv_clock::now() +
                                                                  kv_ms(limit_ms));
}

void kv_qpid_stop_services(kv_amqp_config* config, std::uint32_t limit_ms) {
  if (config == nullptr || config->transport == nullptr) {
    return;
  }
  kv_barrier(__func__,
             [&] { s_stop_services(*config->transport, kv_clock::now() + kv_ms(limit_ms)); });
}

void kv_qpid_deinit(kv_amqp_config* config) {
  if (config == nullptr || config->transport == nullptr) {
    return;
  }
  const auto transport = config->transport->shared_from_this();
  kv_barrier(__func__, [&] { s_deinit(*transport); });
  config->transport = nullptr;
  transport->self.reset();
}

int kv_qpid_send_receive_mt(kv_amqp_config* config, const char* service, std::int32_t timeout_ms,
                            std::int32_t extra_time_ms, kv_const_request_reply_t* pair,
                            char* error_text) {
  if (config == nullptr || config->transport == nullptr || service == nullptr || pair == nullptr ||
      pair->request == nullptr || pair->reply == nullptr) {
    s_log_failure("Invalid parameters", error_text);
    return -1;
  }
  const auto transport = config->transport->shared_from_this();
  const s_call call(*transport);
  try {
    s_send_receive(*transport, {service, kv_ms(timeout_ms), kv_ms(extra_time_ms), pair->request},
                   *pair->reply);
    return 0;
  } catch (const std::exception& error) {
    s_log_failure(error.what(), error_text);
  } catch (...) {
    s_log_failure("unknown exception", error_text);
  }
  return -1;
}

int kv_qpid_start_service_handler_threads(kv_amqp_config* config, const char* service,
                                          kv_service_request_callback callback, void* argument,
                                          const std::atomic<std::int32_t>* stop, int threads) {
  if (config == nullptr || config->transport == nullptr || service == nullptr ||
      callback == nullptr || stop == nullptr || threads < 0) {
    KV_LOG_ERROR("Invalid parameters");
    return -1;
  }
  const auto transport = config->transport->shared_from_this();
  const bool created = kv_barrier(__func__, [&] {
    for (int i = 0; i < threads; ++i) {
      transport->handler_threads.start([=, address = std::string(service)] {
        kv_qpid_handler_thread_mt(*transport, address, callback, argument, *stop);
      });
    }
  });
  if (!created) {
    return -1;
  }
  KV_LOG_INFO("Created %d handler threads for service '%s'", threads, service);
  return 0;
}
