// The threads that serve requests.
#define KV_LOG_UNIT "kv_qpid_proton_mt_interface"
#include <exception>
#include <string_view>

#include "logging/log-helper.h"
#include "messaging/kv_qpid_barrier.h"
#include "messaging/kv_qpid_transport.h"
#include "messaging/kvhlp_replies.h"

namespace {

constexpr std::int32_t kFailedToHandle = -1000;

// The request as the callback sees it: views into the received message.
kv_const_message_t s_view(const kv_body& body) {
  return {.json = body.json.c_str(),
          .data = body.data.empty() ? nullptr : body.data.data(),
          .data_size = body.data.size()};
}

// Whatever the callback throws counts as a failure of this one request.
std::int32_t s_call(kv_service_request_callback callback, void* argument,
                    kv_const_request_reply_t& pair) {
  std::int32_t rc = kFailedToHandle;
  const bool returned =
      kv_barrier("kv_qpid_handler_thread_mt", [&] { rc = callback(argument, &pair); });
  if (!returned) {
    kv_message_free(pair.reply);
    return kFailedToHandle;
  }
  return rc;
}

std::int32_t s_handle(const kv_received_message& request, kv_service_request_callback callback,
                      void* argument, kv_message_t& reply) {
  if (request.error != kv_body_error::none) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_qpid_handler_thread_mt", "%s",
              kv_body_error_text(request.error));
    return kFailedToHandle;
  }
  kv_const_message_t view = s_view(request.body);
  kv_const_request_reply_t pair{.request = &view, .reply = &reply};
  return s_call(callback, argument, pair);
}

std::vector<char> s_encode_reply(const kv_received_message& request, const kv_message_t& reply,
                                 const proton::message_id& id, kv_ms time_to_live) {
  static thread_local proton::message message;  // a new one costs more than all that follows
  message.clear();
  message.id(id);
  message.to(request.reply_to);
  message.correlation_id(request.id);
  message.ttl(proton::duration(static_cast<proton::duration::numeric_type>(time_to_live.count())));
  message.creation_time(proton::timestamp::now());
  const std::string_view data =
      reply.data == nullptr
          ? std::string_view{}
          : std::string_view{static_cast<const char*>(reply.data), reply.data_size};
  return kv_encode_message(message, reply.json, data);
}

void s_send_reply(kv_qpid_transport& transport, const std::string& service,
                  const kv_received_message& request, const kv_message_t& reply,
                  const kv_request_ref& ref) {
  const kv_ms time_to_live = transport.state.options().reply_time_to_live;
  const proton::message_id id = kv_new_message_id();
  kv_outgoing outgoing;
  outgoing.bytes = s_encode_reply(request, reply, id, time_to_live);
  outgoing.to = request.reply_to;
  outgoing.identity = kv_message_id_key(request.id);
  outgoing.request = ref;
  outgoing.deadline = kv_clock::now() + time_to_live;
  transport.connection.sender().send(std::move(outgoing));
  KV_LOG_DEBUG("Reply enqueued from '%s'. msg.to: '%s'. msg.id: '%s'. msg.correlation_id: '%s'",
               service.c_str(), request.reply_to.c_str(), proton::to_string(id).c_str(),
               proton::to_string(request.id).c_str());
}

// The request's outcome follows the reply's, or comes at once when there is none to send.
void s_answer(kv_qpid_transport& transport, const std::string& service,
              const kv_received_message& request, const kv_message_t& reply,
              const kv_request_ref& ref) {
  qpid_sender& sender = transport.connection.sender();
  if (reply.json == nullptr) {
    KV_LOG_DEBUG("No reply needed for this service");
    sender.settle(ref, kv_outcome::accepted);
    return;
  }
  if (request.reply_to.empty()) {
    KV_LOG_WARN("Request with msg.id '%s' has no reply-to, its reply is dropped",
                proton::to_string(request.id).c_str());
    sender.settle(ref, kv_outcome::accepted);
    return;
  }
  try {
    s_send_reply(transport, service, request, reply, ref);
  } catch (const std::exception& error) {
    KV_LOG_WARN("Reply to '%s' not sent: %s. Its request is delivered again",
                request.reply_to.c_str(), error.what());
    sender.settle(ref, kv_outcome::modified);
  }
}

void s_log_request(const std::string& service, const kv_received_message& request) {
  KV_LOG_DEBUG("Processing request for service '%s' with msg.id: '%s' and msg.reply_to: '%s'",
               service.c_str(), proton::to_string(request.id).c_str(), request.reply_to.c_str());
  KV_LOG_DEBUG("Message body value type: %s", proton::type_name(request.body_type).c_str());
}

void s_serve(kv_qpid_transport& transport, qpid_receiver& receiver,
             const kv_received_message& request, kv_service_request_callback callback,
             void* argument) {
  const kv_request_ref ref{&receiver, request.sequence, request.generation};
  s_log_request(receiver.address(), request);
  kv_message_t reply{};
  const std::unique_ptr<kv_message_t, kv_free_pointer<kv_message_free>> guard{&reply};
  if (s_handle(request, callback, argument, reply) != 0 && reply.json == nullptr) {
    KV_LOG_ERROR("No reply generated by handler, creating a generic error reply");
    if (kv_reply_set_ERROR(&reply.json, kFailedToHandle, "Failed to handle request") != 0) {
      transport.connection.sender().settle(ref, kv_outcome::modified);
      return;
    }
  }
  s_answer(transport, receiver.address(), request, reply, ref);
}

}  // namespace

void kv_qpid_handler_thread_mt(kv_qpid_transport& transport, const std::string& service,
                               kv_service_request_callback callback, void* argument,
                               const std::atomic<std::int32_t>& stop) {
  KV_LOG_DEBUG("Starting handler thread for service '%s'", service.c_str());
  qpid_receiver& receiver = kv_qpid_get_receiver(transport, service);
  kv_request_thread self(receiver.requests());
  while (stop.load(std::memory_order_relaxed) == 0) {
    KV_LOG_DEBUG("Waiting for request on '%s'", service.c_str());
    const auto request = receiver.receive(self, stop);
    if (!request) {
      break;
    }
    kv_barrier(__func__, [&] { s_serve(transport, receiver, *request, callback, argument); });
  }
}
