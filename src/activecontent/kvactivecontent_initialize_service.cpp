#include "activecontent/kvactivecontent_service_internal.h"
#include "logging/log-helper.h"

int kv_initialize_service(worker_thread_parameters* thread, kv_service_state_t* state,
                          char* /*error*/) {
  KV_LOG_TRACE("Entering");
  {
    // Threads that started earlier may be answering from the description already.
    const std::lock_guard guard{state->lock};
    kvactivecontent_describe_service(*state);
  }
  thread->thread_local_parameters->flag = thread->shared->config->use_shm_for_recursion;
  constexpr int rc = 0;
  KV_LOG_TRACE("Exiting. rc= %d", rc);
  return rc;
}
