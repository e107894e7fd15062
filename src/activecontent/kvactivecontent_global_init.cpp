#include "activecontent/kvactivecontent_service_internal.h"

#include <openssl/crypto.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

#include "common/KVstrerror.h"
#include "logging/log-helper.h"

namespace {

constexpr const char* kOwnProgram = "/proc/self/exe";

std::int64_t s_program_timestamp() {
  struct stat status {};
  if (stat(kOwnProgram, &status) != 0) {
    KV_LOG_ERROR("%s: %s", kOwnProgram, KVstrerror(errno));
    return 0;
  }
  return status.st_mtime;
}

}  // namespace

void kvactivecontent_describe_service(kv_service_state_t& state) {
  *state.description = {
      .name = KV_SERVICE_TITLE,
      .major_version = KV_SERVICE_MAJOR,
      .minor_version = KV_SERVICE_MINOR,
      .number_of_signatures = 0,
      .number_of_variants = 0,
      .timestamp = state.program_timestamp,
  };
}

int kv_worker_global_init(kv_worker_config_t* config, kv_worker_thread_args_t* args, char* error) {
  // Nothing that guards or names rests on this generator.
  std::srand(static_cast<unsigned>(std::clock()));
  std::unique_ptr<kv_service_state_t> state{new (std::nothrow) kv_service_state_t{}};
  if (!state) {
    static_cast<void>(
        std::snprintf(error, KV_ERROR_TEXT_SIZE, "Failed to allocate ac_definitions list"));
    return -1;
  }
  state->program_timestamp = s_program_timestamp();
  state->description.reset(new (std::nothrow) kv_service_description_t{});
  if (!state->description) {
    KV_LOG_FATAL("Failed to allocate serviceDescription");
    return -1;
  }
  kvactivecontent_describe_service(*state);
  state->recursive_scan.reset(kv_recursive_scan_new(config->amqp, config->worker_threads));
  if (!state->recursive_scan) {
    static_cast<void>(
        std::snprintf(error, KV_ERROR_TEXT_SIZE, "Failed to allocate recursive scan settings"));
    return -1;
  }
  args->service = state.release();
  KV_LOG_TRACE("Global Init complete");
  return 0;
}

int kv_worker_global_cleanup(kv_worker_thread_args_t* /*args*/) {
  // The definitions stay: the process is ending, and a thread that did not end in time may still
  // use them.
  KV_LOG_TRACE("Cleaning up");
  KV_LOG_DEBUG("Cleaning up SSL");
  OPENSSL_cleanup();
  return 0;
}

void kv_service_state_free(kv_service_state_t** state) {
  delete *state;
  *state = nullptr;
}
