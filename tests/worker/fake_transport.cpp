#include "fake_transport.h"

#include <cstdlib>

#include "common/kv_json.h"

namespace {

fake_transport_t s_transport;

json_object* s_request(const char* service, const char* text, std::int32_t timeout_ms,
                       std::uint32_t retries) {
  const fake_request request{service, text, timeout_ms, retries, kv_amqp_stop_flag != nullptr};
  s_transport.requests.push_back(request);
  const std::string reply = s_transport.answer(request);
  return reply.empty() ? nullptr : json_tokener_parse(reply.c_str());
}

}  // namespace

std::vector<std::string> fake_transport_t::texts() const {
  std::vector<std::string> all;
  for (const fake_request& request : requests) {
    all.push_back(request.text);
  }
  return all;
}

fake_transport_t& fake_transport() {
  return s_transport;
}
void reset_fake_transport() {
  s_transport = fake_transport_t{};
}

kv_amqp_config* kv_amqp_config_new() {
  if (!s_transport.config_can_be_made) {
    return nullptr;
  }
  return static_cast<kv_amqp_config*>(std::calloc(1, sizeof(kv_amqp_config)));
}

void kv_amqp_config_free(kv_amqp_config** config) {
  if (*config == nullptr) {
    return;
  }
  for (char* text : {(*config)->broker_host, (*config)->broker_port, (*config)->broker_user,
                     (*config)->broker_password, (*config)->cert_path}) {
    std::free(text);
  }
  std::free(*config);
  *config = nullptr;
}

int kv_amqp_init(kv_amqp_config*) {
  s_transport.calls.emplace_back("init");
  return s_transport.init_rc;
}

bool kv_amqp_wait_connected(kv_amqp_config*, std::uint32_t) {
  return true;
}

void kv_amqp_stop_services(kv_amqp_config*, std::uint32_t limit_ms) {
  s_transport.calls.emplace_back("stop services");
  s_transport.stop_limit_ms = limit_ms;
  s_transport.on_stop();
}

void kv_amqp_deinit(kv_amqp_config*) {
  s_transport.calls.emplace_back("deinit");
}

json_object* kv_amqp_send_recv_json(kv_amqp_config*, const char* service, const char* request_json,
                                    std::int32_t timeout_ms, std::uint32_t retries, char*) {
  return s_request(service, request_json, timeout_ms, retries);
}

json_object* kv_amqp_send_recv_json_data(kv_amqp_config*, const char* service,
                                         kv_const_request_reply_t* pair, std::int32_t timeout_ms,
                                         std::int32_t, std::uint32_t retries, char*) {
  return s_request(service, pair->request->json, timeout_ms, retries);
}

int kv_amqp_simple_request(kv_amqp_config*, const char* service, const char* request_json,
                           std::int32_t timeout_ms, std::uint32_t retries, char*) {
  const kv_json_ptr reply{s_request(service, request_json, timeout_ms, retries)};
  std::int32_t code = -1;
  if (reply) {
    static_cast<void>(kv_json_get_int(reply.get(), "ReturnCode", code));
  }
  return code;
}

int kv_qpid_init(kv_amqp_config*) {
  return 0;
}
bool kv_qpid_wait_connected(kv_amqp_config*, std::uint32_t) {
  return true;
}
void kv_qpid_stop_services(kv_amqp_config*, std::uint32_t) {}
void kv_qpid_deinit(kv_amqp_config*) {}

int kv_qpid_send_receive_mt(kv_amqp_config*, const char*, std::int32_t, std::int32_t,
                            kv_const_request_reply_t*, char*) {
  return -1;
}

int kv_qpid_start_service_handler_threads(kv_amqp_config*, const char* service,
                                          kv_service_request_callback callback, void* argument,
                                          const std::atomic<std::int32_t>* stop, int threads) {
  s_transport.services.push_back({service, callback, argument, stop, threads});
  return s_transport.start(s_transport.services.back());
}
