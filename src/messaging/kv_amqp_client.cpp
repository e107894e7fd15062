#include "messaging/kv_amqp_client.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "common/kv_json.h"
#include "logging/log-helper.h"
#include "messaging/kv_qpid_proton_mt_interface.h"
#include "messaging/kvhlp_replies.h"

namespace {

constexpr const char* kNoUamqp = "The uAMQP transport is not part of this build";

void s_set_error_text(char* error_text, const char* text) {
  if (error_text != nullptr) {
    std::snprintf(error_text, KV_ERROR_TEXT_SIZE, "%s", text);
  }
}

// Outgoing requests through the second transport: refused as long as there is none.
int s_refuse_uamqp(char* error_text) {
  KV_LOG_ERROR("%s", kNoUamqp);
  s_set_error_text(error_text, kNoUamqp);
  return -1;
}

// One attempt by the transport that the configuration names. What a failed attempt left in the
// reply is freed, so that the next one starts clean.
int s_send_receive(kv_amqp_config* config, const char* service, std::int32_t timeout_ms,
                   std::int32_t extra_time_ms, kv_const_request_reply_t* pair, char* error_text) {
  const int rc = config->use_uamqp != 0 ? s_refuse_uamqp(error_text)
                                        : kv_qpid_send_receive_mt(config, service, timeout_ms,
                                                                  extra_time_ms, pair, error_text);
  if (rc != 0) {
    kv_message_free(pair->reply);
  }
  return rc;
}

// retries + 1 attempts, counted in 32 bits: the largest number of retries means none at all.
bool s_try_request(kv_amqp_config* config, const char* service, std::int32_t timeout_ms,
                   std::int32_t extra_time_ms, std::uint32_t retries,
                   kv_const_request_reply_t* pair, char* error_text) {
  for (std::uint32_t left = retries + 1; left != 0; --left) {
    if (s_send_receive(config, service, timeout_ms, extra_time_ms, pair, error_text) == 0) {
      return true;
    }
    if (kv_amqp_stop_requested()) {
      return false;
    }
    if (left > 1) {
      KV_LOG_INFO("Retrying... Retries left: %d", static_cast<int>(left) - 2);
    }
  }
  return false;
}

bool s_has_reply(const kv_const_request_reply_t& pair) {
  if (pair.reply->json == nullptr) {
    KV_LOG_WARN("Received an empty reply");
    return false;
  }
  return true;
}

json_object* s_parse_reply(const kv_const_request_reply_t& pair) {
  return kv_json_parse(pair.reply->json, __func__, KV_LOG_UNIT, __LINE__).release();
}

bool s_is_complete(const kv_amqp_config* config, const char* service,
                   const kv_const_request_reply_t* pair) {
  return config != nullptr && service != nullptr && pair != nullptr && pair->request != nullptr &&
         pair->reply != nullptr;
}

json_object* s_send_recv_json(kv_amqp_config* config, const char* service, const char* request_json,
                              std::int32_t timeout_ms, std::uint32_t retries, char* error_text) {
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  if (!s_is_complete(config, service, pair.get())) {
    KV_LOG_ERROR("Failed to allocate %s", "request/reply pair");
    return nullptr;
  }
  pair->request->json = request_json;
  KV_LOG_DEBUG("Sending request to service %s (timeout: %dms):\n%s", service, timeout_ms,
               request_json != nullptr ? request_json : "");
  if (!s_try_request(config, service, timeout_ms, 0, retries, pair.get(), error_text) ||
      !s_has_reply(*pair)) {
    return nullptr;
  }
  KV_LOG_DEBUG("Received reply from service %s:\n%s", service, pair->reply->json);
  return s_parse_reply(*pair);
}

json_object* s_send_recv_json_data(kv_amqp_config* config, const char* service,
                                   kv_const_request_reply_t* pair, std::int32_t timeout_ms,
                                   std::int32_t extra_time_ms, std::uint32_t retries,
                                   char* error_text) {
  if (!s_is_complete(config, service, pair)) {
    KV_LOG_ERROR("Invalid parameters");
    return nullptr;
  }
  json_object* reply = nullptr;
  if (s_try_request(config, service, timeout_ms, extra_time_ms, retries, pair, error_text) &&
      s_has_reply(*pair)) {
    reply = s_parse_reply(*pair);
  }
  std::free(pair->reply->json);
  pair->reply->json = nullptr;
  return reply;
}

}  // namespace

kv_amqp_config* kv_amqp_config_new() {
  return static_cast<kv_amqp_config*>(std::calloc(1, sizeof(kv_amqp_config)));
}

void kv_amqp_config_free(kv_amqp_config** config) {
  if (config == nullptr || *config == nullptr) {
    return;
  }
  kv_amqp_config& members = **config;
  if (members.broker_password != nullptr) {
    explicit_bzero(members.broker_password, std::strlen(members.broker_password));
  }
  for (char* text :
       {members.broker_host, members.broker_port, members.broker_user, members.reserved_text,
        members.broker_password, members.cert_path, members.cert_data, members.proxy_host,
        members.proxy_port, members.proxy_user, members.proxy_password}) {
    std::free(text);
  }
  std::free(*config);
  *config = nullptr;
}

int kv_amqp_init(kv_amqp_config* config) {
  int rc = 0;
  KV_TRACE_SCOPE(rc);
  if (config == nullptr) {
    KV_LOG_ERROR("Invalid parameters");
    rc = -1;
    return rc;
  }
  if (config->use_uamqp != 0) {
    rc = s_refuse_uamqp(nullptr);
  }
  // The service side needs this transport whatever outgoing requests take; its own failures are
  // logged and show at the first request.
  static_cast<void>(kv_qpid_init(config));
  return rc;
}

bool kv_amqp_wait_connected(kv_amqp_config* config, std::uint32_t limit_ms) {
  return kv_qpid_wait_connected(config, limit_ms);
}

void kv_amqp_stop_services(kv_amqp_config* config, std::uint32_t limit_ms) {
  if (config != nullptr) {
    kv_qpid_stop_services(config, limit_ms);
  }
}

void kv_amqp_deinit(kv_amqp_config* config) {
  if (config != nullptr) {
    kv_qpid_deinit(config);
  }
}

json_object* kv_amqp_send_recv_json(kv_amqp_config* config, const char* service,
                                    const char* request_json, std::int32_t timeout_ms,
                                    std::uint32_t retries, char* error_text) try {
  return s_send_recv_json(config, service, request_json, timeout_ms, retries, error_text);
} catch (const std::exception& error) {
  KV_LOG_ERROR("%s", error.what());
  return nullptr;
}

json_object* kv_amqp_send_recv_json_data(kv_amqp_config* config, const char* service,
                                         kv_const_request_reply_t* pair, std::int32_t timeout_ms,
                                         std::int32_t extra_time_ms, std::uint32_t retries,
                                         char* error_text) try {
  return s_send_recv_json_data(config, service, pair, timeout_ms, extra_time_ms, retries,
                               error_text);
} catch (const std::exception& error) {
  KV_LOG_ERROR("%s", error.what());
  return nullptr;
}

int kv_amqp_simple_request(kv_amqp_config* config, const char* service, const char* request_json,
                           std::int32_t timeout_ms, std::uint32_t retries, char* error_text) {
  const kv_json_ptr reply{
      kv_amqp_send_recv_json(config, service, request_json, timeout_ms, retries, error_text)};
  if (!reply) {
    return -1;
  }
  std::int32_t code = -1;
  if (!kv_reply_get_return_code(reply.get(), code)) {
    KV_LOG_WARN("Object %s not found", "ReturnCode");
    return -1;
  }
  return code;
}
