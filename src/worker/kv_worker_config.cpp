#include "worker/kv_worker_config.h"

#include <cstring>
#include <new>

kv_worker_thread_args_t* kv_worker_thread_args_new() {
  return new (std::nothrow) kv_worker_thread_args_t{};
}

kv_worker_config_t* kv_worker_config_new() {
  auto* config = new (std::nothrow) kv_worker_config_t{};
  if (config == nullptr) {
    return nullptr;
  }
  config->worker_threads = 50;
  config->control_connection_timeout = 10;
  config->autoscale_monitoring_period = 60;
  config->autoscale_high_water_mark = 75;
  config->autoscale_low_water_mark = 10;
  config->register_interval = 5;
  return config;
}

kv_update_config_t* kv_update_config_new() {
  return new (std::nothrow) kv_update_config_t{};
}

kv_worker_network_config_t* kv_worker_network_config_new() {
  return new (std::nothrow) kv_worker_network_config_t{};
}

kv_update_thread_args_t* kv_update_thread_args_new() {
  auto* args = new (std::nothrow) kv_update_thread_args_t{};
  if (args != nullptr) {
    args->target_status = KV_UPDATE_TARGET_RUN;
    args->update_state = KV_UPDATE_IDLE;
  }
  return args;
}

void kv_update_config_free(kv_update_config_t** config) {
  if (*config == nullptr) {
    return;
  }
  std::free((*config)->update_server);
  delete *config;
  *config = nullptr;
}

void kv_worker_network_config_free(kv_worker_network_config_t** config) {
  if (*config == nullptr) {
    return;
  }
  std::free((*config)->http_proxy);
  delete *config;
  *config = nullptr;
}

void kv_update_thread_args_free(kv_update_thread_args_t** args) {
  if (*args == nullptr) {
    return;
  }
  std::free((*args)->new_version);
  std::free((*args)->shutdown_target);
  std::free((*args)->shutdown_secret);
  delete *args;
  *args = nullptr;
}

void kv_worker_config_free(kv_worker_config_t** config) {
  if (*config == nullptr) {
    return;
  }
  kv_worker_config_t& record = **config;
  for (char* text : {record.basedir, record.tempdir, record.work_directory, record.trace_file,
                     record.signal_when_ready, record.shutdown_when_ready, record.secret,
                     record.activation_secret}) {
    std::free(text);
  }
  kv_amqp_config_free(&record.amqp);
  kv_update_config_free(&record.update);
  kv_worker_network_config_free(&record.network);
  kv_update_thread_args_free(&record.update_thread);
  delete *config;
  *config = nullptr;
}

void kv_worker_thread_args_free(kv_worker_thread_args_t** args) {
  delete *args;
  *args = nullptr;
}

bool kv_worker_store_text(char*& text, const char* value) {
  char* copy = nullptr;
  if (value != nullptr) {
    copy = strdup(value);
    if (copy == nullptr) {
      return false;
    }
  }
  std::free(text);
  text = copy;
  return true;
}
