#define KV_LOG_UNIT "kv_worker"
#include "worker/kv_worker_scan_types.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/kv_json.h"
#include "logging/log-helper.h"
#include "messaging/kv_amqp_client.h"

namespace {

constexpr const char* kBuilder = "kv_worker_GetScanJobDetails";

void s_set_error(char* error, const char* text) {
  if (error != nullptr) {
    static_cast<void>(std::snprintf(error, KV_ERROR_TEXT_SIZE, "%s", text));
  }
}

void s_set_defaults(scanobject& job) {
  job.enforce_mime_policy_in_archives = 1;
  job.enforce_activecontent_policy_in_archives = 1;
  job.extract_ratio = 1032;
  job.extract_depth = 20;
  job.extension_max_length = 5;
  job.shm_id = -1;
  job.limit_ms = KV_NO_TIME_LIMIT;
}

scanobject* s_new_job(char* error) {
  kv_scanobject_ptr job{new (std::nothrow) scanobject{}};
  if (!job) {
    s_set_error(error, "Failed to allocate scanobject struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob struct");
  job->ScanConfig = new (std::nothrow) ScanConfig_t{};
  if (job->ScanConfig == nullptr) {
    s_set_error(error, "Failed to allocate scanobject->ScanConfig struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob->scanconfig struct");
  s_set_defaults(*job);
  job->ActiveContent = new (std::nothrow) ActiveContent_t{};
  if (job->ActiveContent == nullptr) {
    s_set_error(error, "Failed to allocate scanobject-ActiveContent struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob->ActiveContent struct");
  return job.release();
}

std::uint64_t s_now_ms() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

}  // namespace

scanobject* kv_worker_new_scanobject() {
  return s_new_job(nullptr);
}

void kv_worker_FreeScanObject(scanobject** job) {
  if (job == nullptr || *job == nullptr) {
    return;
  }
  scanobject* const gone = *job;
  *job = nullptr;
  for (char* text :
       {gone->object_name, gone->services, gone->scan_extensions, gone->scan_mime_types,
        gone->block_extensions, gone->block_mime_types, gone->mime_type, gone->file_type,
        gone->extension, gone->realm_id, gone->event_id}) {
    std::free(text);
  }
  delete gone->ActiveContent;
  delete gone->ScanConfig;
  delete gone;
}

std::int64_t kv_scan_time_left_ms(const scanobject& job) {
  if (job.limit_ms == KV_NO_TIME_LIMIT) {
    return KV_NO_TIME_LIMIT;
  }
  const std::uint64_t now = s_now_ms();
  const std::uint64_t spent = now > job.start_ms ? now - job.start_ms : 0;
  return spent >= static_cast<std::uint64_t>(INT64_MAX)
             ? INT64_MIN
             : job.limit_ms - static_cast<std::int64_t>(spent);
}
