#include "worker/kv_worker_process.h"

#include <unistd.h>

#include <exception>

#include "logging/log-helper.h"

kv_worker_process_t::~kv_worker_process_t() {
  zlist_destroy(&threads);
}

int kv_worker_main(int argc, char** argv) {
  kv_worker_process_t process;
  process.argc = argc;
  process.argv = argv;
  try {
    const kv_step_end end = kv_worker_start_up(process);
    if (end == kv_step_end::leave) {
      return process.rc;
    }
    if (end == kv_step_end::next) {
      kv_worker_supervise(process);
    }
    const int rc = kv_worker_shut_down(process);
    if (process.work_left_behind) {
      _exit(rc);  // an orderly exit would take away what the running scan uses
    }
    return rc;
  } catch (const std::exception& error) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Ending worker: %s", error.what());
    return -1;
  }
}
