#include "activecontent/kvactivecontent_service_internal.h"
#include "logging/log-helper.h"

namespace {

// The state word of a thread that has answered.
constexpr std::uint64_t kAnswered = 2;

kv_service_description_t s_description(kv_service_state_t& state) {
  const std::lock_guard guard{state.lock};
  return *state.description;
}

}  // namespace

char* kv_worker_handle_service_init_request(json_object* /*request*/,
                                            worker_thread_parameters* thread) {
  const kv_service_description_t service = s_description(*thread->shared->service);
  char* const reply = kv_worker_CreateServiceInitializeReply(
      KV_RESULT_CLEAN, service.name, service.major_version, service.minor_version,
      service.number_of_signatures, service.number_of_variants, service.timestamp);
  if (reply == nullptr) {
    KV_LOG_ERROR("Failed to create Service Initialization reply");
    return nullptr;
  }
  thread->thread_local_parameters->state = kAnswered;
  return reply;
}
