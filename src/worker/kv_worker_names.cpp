#include "worker/kv_worker_names.h"

#include <unistd.h>

#include <array>
#include <cstdio>

#include "common/kvhlp_network.h"

std::string kv_worker_directory(std::string_view basedir) {
  return std::string(basedir) + '/' + KV_SERVICE_NAME;
}

std::string kv_worker_version_file(std::string_view basedir) {
  return kv_worker_directory(basedir) + "/.running_version";
}

std::string kv_worker_lock_file(std::string_view basedir) {
  return kv_worker_directory(basedir) + "/.update.lock";
}

std::string kv_worker_run_directory(std::string_view basedir) {
  return std::string(basedir) + "/run";
}

std::string kv_worker_version_text() {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), "korvane Anti-Virus %d.%d.%d Build %d\r\n%s v.%d.%d\n ",
                KV_PRODUCT_MAJOR, KV_PRODUCT_MINOR, KV_PRODUCT_PATCH, KV_PRODUCT_BUILD,
                KV_SERVICE_NAME, KV_SERVICE_MAJOR, KV_SERVICE_MINOR);
  return text.data();
}

std::string kv_worker_name() {
  const char* host = kvhlp_GetMyFQDN();
  return std::string(KV_SERVICE_NAME) + '_' + (host == nullptr ? "localhost" : host) + '_' +
         std::to_string(getpid());
}

const char* kv_worker_role_suffix(const kv_worker_config_t& config) {
  if (config.signal_when_ready != nullptr) {
    return " (Temporary)";
  }
  return config.primary != 0 ? " (Primary)" : "";
}
