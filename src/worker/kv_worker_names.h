#pragma once
// Names and paths that are derived from the configuration, each made in one place only. Pure, save
// the lookup of the host name; any thread.

#include <string>
#include <string_view>

#include "worker/kv_worker.h"

// "BASEDIR/kv-av-activecontent": home of the update lock and of version directories.
[[nodiscard]] std::string kv_worker_directory(std::string_view basedir);
// ".running_version" in the worker directory.
[[nodiscard]] std::string kv_worker_version_file(std::string_view basedir);
// ".update.lock" in the worker directory.
[[nodiscard]] std::string kv_worker_lock_file(std::string_view basedir);
// "BASEDIR/run": home of the queue of log and event records.
[[nodiscard]] std::string kv_worker_run_directory(std::string_view basedir);
// What the version file holds.
[[nodiscard]] std::string kv_worker_version_text();
// "kv-av-activecontent_HOST_PID": the worker's own address and its name towards the control
// service.
[[nodiscard]] std::string kv_worker_name();
// " (Temporary)", " (Primary)" or empty: the worker's role as status texts tell it.
[[nodiscard]] const char* kv_worker_role_suffix(const kv_worker_config_t& config);
