#pragma once
// The life of the process: start-up as a list of named steps, the supervisor loop, shutdown as a
// list of named steps. Everything here runs on the main thread; the record below is its state and
// is touched by nobody else.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "worker/kv_worker_config.h"
#include "worker/kv_worker_registration.h"
#include "worker/kv_worker_threads.h"

struct kv_worker_process_t {
  int argc = 0;
  char** argv = nullptr;
  kv_worker_config_ptr config;
  kv_worker_thread_args_ptr shared;  // its first field points to the configuration
  std::unique_ptr<std::int32_t[]> load_samples;
  std::int32_t load_sample_count = 0;
  zlist_t* threads = nullptr;                                  // parameters of the worker threads
  std::vector<kv_worker_thread_parameters_ptr> ended_threads;  // parameters once the list is gone
  kv_worker_identity_t identity{};
  std::uint64_t registered_at_s = 0;  // when the worker registered last, in whole seconds
  bool broker_is_initialised = false;
  bool service_is_initialised = false;
  bool work_left_behind = false;  // a scan outlasted the shutdown: nothing that it uses was freed
  std::string error_text;         // the failure that a status event at the end tells
  std::int32_t rc = 0;            // what main returns

  kv_worker_process_t() = default;
  kv_worker_process_t(const kv_worker_process_t&) = delete;
  kv_worker_process_t& operator=(const kv_worker_process_t&) = delete;
  ~kv_worker_process_t();
};

// What comes after a step of the start-up.
enum class kv_step_end {
  next,       // the next step, behind the last one the supervisor loop
  shut_down,  // the shutdown path, with the record's rc
  leave,      // the process ends at once, with the record's rc
};

// Runs the steps of the start-up until one of them ends it.
[[nodiscard]] kv_step_end kv_worker_start_up(kv_worker_process_t& process);
// Runs until the process is to end or an update has been activated.
void kv_worker_supervise(kv_worker_process_t& process);
// One load sample, with the notices that the average calls for.
void kv_worker_check_load(kv_worker_process_t& process);
// Runs the steps of the shutdown; returns what main returns.
int kv_worker_shut_down(kv_worker_process_t& process);

// The whole life.
int kv_worker_main(int argc, char** argv);
