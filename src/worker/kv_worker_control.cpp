#include "worker/kv_worker_control.h"

#include <sodium.h>

#include <array>
#include <cstring>
#include <string>

#include "activecontent/kvactivecontent_service.h"
#include "common/kv_json.h"
#include "logging/log-helper.h"
#include "messaging/kvhlp_replies.h"
#include "worker/kv_worker.h"
#include "worker/kv_worker_config.h"

namespace {

// All lines of a control job stand under the name of its handler.
constexpr const char* kHandler = "kv_worker_control_request_handler";
constexpr std::int32_t kSecretMismatch = -1000;

struct control_job {
  kv_worker_thread_args_t& shared;
  json_object* request;
  char*& reply;
  std::int32_t command;
};

// Reads a text that the job must hold.
bool s_read_required(json_object* request, const char* key, std::string& out) {
  const kv_json_presence presence = kv_json_get_text(request, key, out);
  if (presence != kv_json_presence::present) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "%s", kv_json_presence_message(presence, key).c_str());
    return false;
  }
  return true;
}

// Takes the same time wherever the texts differ. A worker without a secret of its own accepts none.
bool s_secret_matches(const char* local, const std::string& remote) {
  return local != nullptr && std::strlen(local) == remote.size() &&
         sodium_memcmp(local, remote.data(), remote.size()) == 0;
}

const char* s_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

std::int32_t s_ping(const control_job& job) {
  return kv_reply_set_OK(&job.reply);
}

// Keeps what main needs for the restart, then lets it leave its loop.
std::int32_t s_take_handover(const control_job& job) {
  std::string target;
  std::string secret;
  if (!s_read_required(job.request, "Shutdown", target) ||
      !s_read_required(job.request, "Shutdown-Secret", secret)) {
    return -1;
  }
  kv_update_thread_args_t& update = *job.shared.config->update_thread;
  const std::lock_guard lock(update.handover);
  if (!kv_worker_store_text(update.shutdown_target, target.c_str()) ||
      !kv_worker_store_text(update.shutdown_secret, secret.c_str())) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Failed to allocate %s", "Shutdown");
    return -1;
  }
  update.update_state.store(KV_UPDATE_ACTIVATED, std::memory_order_relaxed);
  return 0;
}

// Main makes the activation secret afresh whenever an activation starts.
bool s_activation_secret_matches(const kv_worker_config_t& config, const std::string& secret) {
  const std::lock_guard lock(config.update_thread->handover);
  const char* local = config.activation_secret;
  if (s_secret_matches(local, secret)) {
    return true;
  }
  KV_LOG_AS(KV_LOG_LEVEL_WARN, kHandler, "secret mismatch (Local: \"%s\" remote: \"%s\") ",
            s_or_empty(local), secret.c_str());
  return false;
}

std::int32_t s_ready(const control_job& job) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "SERVICE_READY message received");
  std::string secret;
  if (!s_read_required(job.request, "Secret", secret)) {
    return -1;
  }
  if (!s_activation_secret_matches(*job.shared.config, secret)) {
    return kv_reply_set_return_code(&job.reply, kSecretMismatch);
  }
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "Temporary worker is ready. Completing update-restart");
  if (kv_reply_set_OK(&job.reply) != 0) {
    return -1;
  }
  return s_take_handover(job);
}

std::int32_t s_shutdown(const control_job& job) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, kHandler, "SERVICE_SHUTDOWN request received");
  std::string secret;
  if (!s_read_required(job.request, "Secret", secret)) {
    return -1;
  }
  const char* local = job.shared.config->secret;
  if (!s_secret_matches(local, secret)) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kHandler,
              "secret mismatch (Local: \"%s\" remote: \"%s\") - not shutting down",
              s_or_empty(local), secret.c_str());
    return kv_reply_set_return_code(&job.reply, kSecretMismatch);
  }
  const std::int32_t rc = kv_reply_set_OK(&job.reply);
  killed.store(1, std::memory_order_relaxed);
  return rc;
}

std::int32_t s_flush(const control_job& job) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Flushing active content definitions");
  std::string realm;
  std::string sid;
  const bool has_realm =
      kv_json_get_text(job.request, "RealmID", realm) == kv_json_presence::present;
  const bool has_sid = kv_json_get_text(job.request, "SID", sid) == kv_json_presence::present;
  kvactivecontent_free_definitions(job.shared.service, has_realm ? realm.c_str() : nullptr,
                                   has_sid ? sid.c_str() : nullptr,
                                   job.command == KV_COMMAND_FLUSH_ALL);
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Flushed active content definitions");
  return kv_reply_set_OK(&job.reply);
}

struct control_command {
  std::int32_t code;
  std::int32_t (*handle)(const control_job& job);
};
constexpr std::array<control_command, 5> kCommands{{{KV_COMMAND_PING, s_ping},
                                                    {KV_COMMAND_READY, s_ready},
                                                    {KV_COMMAND_SHUTDOWN, s_shutdown},
                                                    {KV_COMMAND_FLUSH, s_flush},
                                                    {KV_COMMAND_FLUSH_ALL, s_flush}}};

std::int32_t s_dispatch(const control_job& job) {
  for (const control_command& row : kCommands) {
    if (row.code == job.command) {
      return row.handle(job);
    }
  }
  KV_LOG_AS(KV_LOG_LEVEL_WARN, kHandler, "Unhandled Command Code %d received", job.command);
  return 0;
}

}  // namespace

std::int32_t kv_worker_control_request_handler(void* shared_parameters,
                                               kv_const_request_reply_t* pair) {
  KV_LOG_TRACE("Dispatching the message/task");
  const char* text = pair->request->json;
  kv_json_ptr request;  // stays null for the text null, which has no keys
  if (!kv_json_parse(text == nullptr ? "" : text, request, __func__, KV_LOG_UNIT, __LINE__)) {
    return -1;
  }
  KV_LOG_DEBUG("Got Control Job");
  std::int32_t command = -1;
  if (!kv_json_get_int(request.get(), "Command", command)) {
    KV_LOG_WARN("Object %s not found", "Command");
  }
  KV_LOG_DEBUG("Commandcode: %d", command);
  return s_dispatch({*static_cast<kv_worker_thread_args_t*>(shared_parameters), request.get(),
                     pair->reply->json, command});
}
