#include "worker/kv_worker_threads.h"

#include <array>
#include <new>
#include <thread>

#include "activecontent/kvactivecontent_service.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"
#include "messaging/kv_qpid_proton_mt_interface.h"
#include "worker/kv_worker_client_request.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_signals.h"

namespace {

worker_thread_parameters* s_first(zlist_t* list) {
  return static_cast<worker_thread_parameters*>(zlist_first(list));
}

worker_thread_parameters* s_next(zlist_t* list) {
  return static_cast<worker_thread_parameters*>(zlist_next(list));
}

// Tries until the service is initialised; the end of the process ends the tries, not the thread.
void s_initialize_service(worker_thread_parameters* parameters, const char* function) {
  std::array<char, KV_ERROR_TEXT_SIZE> error{};
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, function, "Initializing service %s", KV_SERVICE_NAME);
  while (kv_initialize_service(parameters, parameters->shared->service, error.data()) != 0 &&
         !kv_is_killed()) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to initialize the service: %s - retry",
              error.data());
    kv_worker_pause(KV_RETRY_PAUSE, kv_pause_end::when_killed);
  }
}

// The parameters belong to the list, or to the running thread when they could not be appended.
int s_start_receiver(zlist_t* list, kv_worker_thread_parameters_ptr parameters,
                     const char* function) {
  if (kv_qpid_start_service_handler_threads(parameters->shared->config->amqp, KV_SERVICE_NAME,
                                            kv_worker_client_request_handler, parameters.get(),
                                            &killed, 1) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to create worker thread");
    return -1;
  }
  if (zlist_append(list, parameters.release()) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to add thread info to the list");
    return -1;
  }
  return 0;
}

int s_create_thread(zlist_t* list, kv_worker_thread_args_t* shared, const char* function) {
  kv_worker_thread_parameters_ptr parameters{kv_worker_thread_parameters_new()};
  if (!parameters) {
    return -1;
  }
  parameters->shared = shared;
  s_initialize_service(parameters.get(), function);
  return s_start_receiver(list, std::move(parameters), function);
}

}  // namespace

worker_thread_parameters* kv_worker_thread_parameters_new() {
  auto* parameters = new (std::nothrow) worker_thread_parameters{};
  if (parameters == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_worker_create_thread", "Failed to allocate %s",
              "worker_thread_parameters");
    return nullptr;
  }
  parameters->thread_local_parameters = new (std::nothrow) kv_thread_local_parameters_t{};
  if (parameters->thread_local_parameters == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_worker_create_thread", "Failed to allocate %s",
              "worker_thread_parameters->thread_local_parameters");
    delete parameters;
    return nullptr;
  }
  parameters->target_status = KV_TARGET_RUN;
  parameters->current_status = KV_THREAD_STARTING;
  return parameters;
}

void kv_worker_thread_parameters_free(worker_thread_parameters** parameters) {
  if (*parameters == nullptr) {
    return;
  }
  delete (*parameters)->thread_local_parameters;
  delete *parameters;
  *parameters = nullptr;
}

int kv_worker_create_thread(zlist_t* list, kv_worker_thread_args_t* shared) {
  KV_LOG_TRACE("Entering");
  const int rc = s_create_thread(list, shared, __func__);
  KV_LOG_TRACE("Exiting, rc= %d", rc);
  return rc;
}

void kv_worker_set_all_threads_target_status(zlist_t* list, std::uint32_t status) {
  KV_LOG_TRACE("Entering");
  for (auto* thread = s_first(list); thread != nullptr; thread = s_next(list)) {
    thread->target_status.store(status, std::memory_order_relaxed);
  }
}

void kv_worker_terminate_all_threads(zlist_t** list) {
  KV_LOG_TRACE("Entering");
  if (*list == nullptr) {
    return;
  }
  kv_worker_set_all_threads_target_status(*list, KV_TARGET_TERMINATE);
  zlist_destroy(list);
}

int kv_worker_hold_all_threads(zlist_t* list, std::int32_t timeout_s) {
  int rc = 0;
  const std::uint64_t start = kv_current_time_ms();
  const auto limit_ms = static_cast<std::uint64_t>(timeout_s < 0 ? 0 : timeout_s) * 1000;
  kv_worker_set_all_threads_target_status(list, KV_TARGET_HOLD);
  // No walk counts as complete, whatever the threads do: only the time ends the wait.
  while (zlist_size(list) > 0 && rc == 0) {
    if (kv_timeout_expired(start, limit_ms)) {
      kv_worker_set_all_threads_target_status(list, KV_TARGET_RESUME);
      rc = -1;
    } else {
      std::this_thread::sleep_for(KV_HOLD_POLL);
    }
  }
  KV_LOG_TRACE("Exiting: rc= %d", rc);
  return rc;
}

int kv_worker_resume_all_threads(zlist_t* list) {
  kv_worker_set_all_threads_target_status(list, KV_TARGET_RESUME);
  return 0;
}

std::vector<kv_worker_thread_parameters_ptr> kv_worker_take_parameters(zlist_t* list) {
  std::vector<kv_worker_thread_parameters_ptr> taken;
  if (list == nullptr) {
    return taken;
  }
  taken.reserve(zlist_size(list));
  for (auto* thread = s_first(list); thread != nullptr; thread = s_next(list)) {
    taken.emplace_back(thread);
  }
  return taken;
}
