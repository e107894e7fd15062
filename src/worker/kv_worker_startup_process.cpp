// The steps of the start-up up to the open trace.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/KVstrerror.h"
#include "common/kvhlp_buffer_file.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_commandline.h"
#include "worker/kv_worker_limits.h"
#include "worker/kv_worker_names.h"
#include "worker/kv_worker_signals.h"
#include "worker/kv_worker_startup_internal.h"

namespace {

constexpr const char* kAsterisks =
    "************************************************************************************";

void s_close_inherited_descriptors() {
  for (int descriptor = KV_FIRST_INHERITED_FD; descriptor <= KV_LAST_INHERITED_FD; ++descriptor) {
    close(descriptor);  // most are not open, and that is fine
  }
}

// Null after logging what could not be allocated.
template <class Record>
Record* s_made(Record* record, const char* what) {
  if (record == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "Failed to allocate %s: %s", what, KVstrerror(errno));
  }
  return record;
}

bool s_make_broker_settings(kv_worker_config_t& config) {
  config.amqp = kv_amqp_config_new();
  if (config.amqp == nullptr) {
    std::fprintf(stderr, "Failed to allocate AMQP config struct: %s\r\n", KVstrerror(errno));
  }
  return config.amqp != nullptr;
}

bool s_make_update_block(kv_worker_config_t& config) {
  config.update_thread = s_made(kv_update_thread_args_new(), "update thread arguments struct");
  if (config.update_thread == nullptr) {
    return false;
  }
  config.update_thread->config = &config;
  return true;
}

bool s_make_records(kv_worker_process_t& process) {
  process.shared.reset(s_made(kv_worker_thread_args_new(), "thread arguments struct"));
  if (!process.shared) {
    return false;
  }
  process.config.reset(s_made(kv_worker_config_new(), "kv_worker_config_t"));
  if (!process.config) {
    return false;
  }
  kv_worker_config_t& config = *process.config;
  process.shared->config = &config;
  if (!s_make_broker_settings(config)) {
    return false;
  }
  config.update = s_made(kv_update_config_new(), "kv_update_config_t");
  if (config.update == nullptr) {
    return false;
  }
  config.network = s_made(kv_worker_network_config_new(), "kv_worker_network_config_t");
  return config.network != nullptr && s_make_update_block(config);
}

// The one directory that the worker makes itself; basedir is the installation's.
bool s_make_worker_directory(const std::string& directory) {
  return mkdir(directory.c_str(), KV_WORKER_DIRECTORY_MODE) == 0 || errno == EEXIST;
}

void s_log_start(const kv_worker_process_t& process) {
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", "%s", kAsterisks);
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", " %s starting", process.argv[0]);
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", " Version %d.%d.%d Build %d", KV_PRODUCT_MAJOR,
            KV_PRODUCT_MINOR, KV_PRODUCT_PATCH, KV_PRODUCT_BUILD);
  KV_LOG_AS(KV_LOG_LEVEL_INFO, "main", "%s", kAsterisks);
  for (int i = 1; i < process.argc; ++i) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, "main", "CL [%d]: '%s'", i, process.argv[i]);
  }
}

}  // namespace

kv_step_end kv_start_clean_slate(kv_worker_process_t& process) {
  s_close_inherited_descriptors();
  kv__progname = process.argv[0];
  log_set_quiet(1);
  log_set_screentrace(0);
  log_set_level(KV_LOG_LEVEL_WARN);
  KV_LOG_AS(KV_LOG_LEVEL_FATAL, "main", "%s started, version %d.%d.%d - Build %d", KV_SERVICE_NAME,
            KV_PRODUCT_MAJOR, KV_PRODUCT_MINOR, KV_PRODUCT_PATCH, KV_PRODUCT_BUILD);
  std::srand(static_cast<unsigned>(std::clock()));
  srandom(static_cast<unsigned>(std::clock()));
  return kv_step_end::next;
}

kv_step_end kv_start_records(kv_worker_process_t& process) {
  return s_make_records(process) ? kv_step_end::next : kv_start_failed(process);
}

kv_step_end kv_start_command_line(kv_worker_process_t& process) {
  if (kv_worker_parse_commandline(process.argc, process.argv, process.config.get()) != 0) {
    std::fputs("Failed to parse command line parameters\r\n", stderr);
    process.rc = -1;
    return kv_step_end::leave;
  }
  return kv_step_end::next;
}

kv_step_end kv_start_version_file(kv_worker_process_t& process) {
  const std::string file = kv_worker_version_file(process.config->basedir);
  const std::string text = kv_worker_version_text();
  if (!s_make_worker_directory(kv_worker_directory(process.config->basedir)) ||
      kvhlp_dump_buffer_to_file(text.data(), text.size(), file.c_str()) != 0) {
    // The trace is not open yet: whoever started the worker must hear of it.
    std::fprintf(stderr, "Failed to write version file %s: %s\r\n", file.c_str(),
                 KVstrerror(errno));
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_background(kv_worker_process_t& process) {
  if (process.config->console_mode != 0) {
    return kv_step_end::next;
  }
  // A fork that failed ends here too, with the same result: the caller of a background worker
  // learns from its registration, not from this status, that it runs.
  return fork() == 0 ? kv_step_end::next : kv_step_end::leave;
}

kv_step_end kv_start_signals(kv_worker_process_t& process) {
  if (kv_worker_install_signals() != 0) {
    std::fprintf(stderr, "Error registering signal handler. errno=%d", errno);
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_broker(kv_worker_process_t& process) {
  kv_worker_config_t& config = *process.config;
  config.amqp->use_uamqp = config.amqp_over_http;
  process.broker_is_initialised = true;  // also a failed start leaves threads to be ended
  const int rc = kv_amqp_init(config.amqp);
  if (rc != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "main", "Failed to initialize the broker layer, rc=%d", rc);
    return kv_start_failed(process);
  }
  return kv_step_end::next;
}

kv_step_end kv_start_trace(kv_worker_process_t& process) {
  const kv_worker_config_t& config = *process.config;
  const auto level = static_cast<std::uint32_t>(config.trace_level);
  if (KVOpenTraceFile(config.trace_file, level,
                      static_cast<std::uint64_t>(config.trace_file_maxsize)) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "main", "Failed to open Log/trace file %s", config.trace_file);
  }
  if (config.trace_to_screen != 0) {
    // Opening the trace has cleared both.
    log_set_screentrace(1);
    log_set_level(level);
  }
  s_log_start(process);
  return kv_step_end::next;
}
