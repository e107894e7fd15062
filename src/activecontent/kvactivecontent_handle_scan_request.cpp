#include "activecontent/kvactivecontent_service_internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "activecontent/kvactivecontent_dispatch.h"
#include "common/kv_json.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"
#include "messaging/kv_shm.h"
#include "messaging/kvhlp_replies.h"
#include "worker/kv_worker_RecursiveScan.h"

namespace {

constexpr const char* kHandler = "kv_worker_handle_scan_request";
constexpr std::int32_t kNoSegment = -1;

kv_text_ptr s_new_text_buffer() {
  return kv_text_ptr{static_cast<char*>(std::calloc(KV_REASON_SIZE, 1))};
}

// Everything that one request needs until it is answered.
struct scan_call {
  kv_worker_config_t* config;
  const kv_const_message_t* message;
  json_object* request;
  worker_thread_parameters* thread;
  std::uint64_t start_ms;

  std::string realm{};
  std::string sid{};
  kv_scan_result_ptr consolidated{};
  kv_file_scan_result_ptr file{};
  kv_scanobject_ptr job{};
  char error[KV_ERROR_TEXT_SIZE]{};
};

std::int32_t s_fail(scan_call& call, const char* text) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "%s", text);
  static_cast<void>(std::snprintf(call.error, sizeof(call.error), "%s", text));
  return KV_RESULT_FAILED;
}

// The bytes of the object: the message's, or those of the segment that the job names. Whatever was
// attached is detached when the guard ends, and the job never owns what it points to.
class object_bytes {
 public:
  explicit object_bytes(scan_call& call) : call_(call) {}
  object_bytes(const object_bytes&) = delete;
  object_bytes& operator=(const object_bytes&) = delete;
  ~object_bytes() {
    if (call_.job) {
      call_.job->data = nullptr;
    }
    detach_segment();
  }

  // 0, or the code of the failure.
  [[nodiscard]] std::int32_t make_reachable() {
    return call_.job->shm_id == kNoSegment ? take_payload() : attach_segment();
  }

 private:
  std::int32_t take_payload() {
    const kv_const_message_t& message = *call_.message;
    if (message.data == nullptr || message.data_size == 0) {
      return KV_RESULT_CLEAN;
    }
    // No detector may be told a length that the bytes do not have.
    if (!std::in_range<std::int64_t>(message.data_size) ||
        static_cast<std::int64_t>(message.data_size) != call_.job->object_length) {
      return s_fail(call_, "Data length inconsistency");
    }
    call_.job->data = message.data;
    return KV_RESULT_CLEAN;
  }

  // The segment is scanned where it lies; a length beyond its size is an error, never a read past
  // it.
  std::int32_t attach_segment() {
    scanobject& job = *call_.job;
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Attaching shared memory segment ID: 0x%x",
              static_cast<std::uint32_t>(job.shm_id));
    const std::uint64_t length =
        job.object_length > 0 ? static_cast<std::uint64_t>(job.object_length) : 0;
    if (!segment_.attach(job.shm_id, length, KV_SERVICE_NAME)) {
      return s_fail(call_, "Failed to attach shared memory segment");
    }
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Shared memory segment attached");
    job.data = segment_.bytes().data();
    return KV_RESULT_CLEAN;
  }

  void detach_segment() {
    if (segment_.is_attached()) {
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kHandler, "Detaching shared memory");
      segment_.detach();
    }
  }

  scan_call& call_;
  kv_shm_segment segment_;
};

bool s_read_tenant(scan_call& call, const char* key, std::string& out) {
  const kv_json_presence presence = kv_json_get_text(call.request, key, out);
  if (presence == kv_json_presence::present) {
    return true;
  }
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "%s", kv_json_presence_message(presence, key).c_str());
  return false;
}

bool s_have(bool allocated, const char* name) {
  if (!allocated) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Failed to allocate %s", name);
  }
  return allocated;
}

bool s_make_records(scan_call& call) {
  call.consolidated.reset(kv_worker_new_scan_result());
  if (!s_have(call.consolidated != nullptr, "consolidated_scanresult")) {
    return false;
  }
  call.consolidated->error = s_new_text_buffer().release();
  if (!s_have(call.consolidated->error != nullptr, "consolidated_scanresult->error")) {
    return false;
  }
  call.file.reset(kv_worker_new_file_scan_result());
  if (!s_have(call.file != nullptr, "file_result")) {
    return false;
  }
  call.file->blocking_reason = s_new_text_buffer().release();
  return s_have(call.file->blocking_reason != nullptr, "file_result->blocking_reason");
}

int s_merge_rows(void*, kv_scan_result_t* consolidated, const kv_scan_result_t* latest) {
  return kv_worker_merge_scanresults(consolidated, latest);
}

void s_start_job(scan_call& call) {
  scanobject& job = *call.job;
  job.thread_context = call.thread;
  job.start_ms = call.start_ms;
  job.embedded = {.scan = kv_recursive_scan_embedded,
                  .context = call.thread->shared->service->recursive_scan.get(),
                  .merge = s_merge_rows};
  if (job.ScanConfig->scan_timeout > 0) {
    job.limit_ms = job.ScanConfig->scan_timeout;
  }
  call.file->file_name = strdup(job.object_name);
  call.file->file_size =
      job.object_length > 0 ? static_cast<std::uint64_t>(job.object_length) : std::uint64_t{0};
}

std::int32_t s_make_job(scan_call& call) {
  char reason[KV_ERROR_TEXT_SIZE]{};  // logged where it arises; the reply names the step only
  call.job.reset(kv_worker_GetScanJobDetails(call.request, reason));
  if (!call.job) {
    return s_fail(call, "Failed to get scan job details from MQ message");
  }
  if (kvactivecontent_extract_ac_parameters(call.config, call.job.get(),
                                            call.thread->shared->service, call.realm.c_str(),
                                            call.sid.c_str()) != 0) {
    const std::string text =
        "Failed to get active content definitions for " + call.realm + "/" + call.sid;
    return s_fail(call, text.c_str());
  }
  s_start_job(call);
  return KV_RESULT_CLEAN;
}

std::int32_t s_examine(scan_call& call) {
  object_bytes bytes{call};
  if (const std::int32_t code = bytes.make_reachable(); code != KV_RESULT_CLEAN) {
    return code;
  }
  return kvactivecontent_dispatch(
      call.job.get(), call.consolidated.get(), call.file->blocking_reason, call.error,
      static_cast<std::uint8_t>(call.thread->thread_local_parameters->flag));
}

std::int32_t s_scan(scan_call& call) {
  if (!s_read_tenant(call, "realmID", call.realm) || !s_read_tenant(call, "SID", call.sid)) {
    return KV_RESULT_BAD_INPUT;
  }
  if (!s_make_records(call)) {
    return KV_RESULT_FAILED;
  }
  if (const std::int32_t code = s_make_job(call); code != KV_RESULT_CLEAN) {
    return code;
  }
  return s_examine(call);
}

std::int32_t s_scan_guarded(scan_call& call) {
  try {
    return s_scan(call);
  } catch (const std::exception& failure) {
    return s_fail(call, failure.what());
  }
}

void s_record_outcome(scan_call& call, std::int32_t code) {
  if (call.error[0] != '\0') {
    call.file->error = strdup(call.error);
  }
  call.file->return_code = code;
  if (code == KV_RESULT_FAILED) {
    std::free(call.consolidated->error);
    call.consolidated->error = call.error[0] == '\0' ? nullptr : strdup(call.error);
  }
}

void s_consolidate(scan_call& call, std::int32_t code) {
  if (kv_worker_add_file_scan_result(call.consolidated.get(), call.file.get()) != 0 &&
      code < call.consolidated->return_code) {
    // The row is lost, the verdict must not be.
    call.consolidated->return_code = code;
  }
  if (kv_worker_create_scan_results_summary(call.consolidated.get()) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kHandler, "Failed to create scan summary");
  }
}

// The reply of a request that got no further than its records: the code alone.
char* s_bare_reply(std::int32_t code) {
  char* text = nullptr;
  static_cast<void>(kv_reply_set_return_code(&text, code));
  return text;
}

char* s_reply(scan_call& call, std::int32_t code) {
  if (!call.consolidated || !call.file) {
    return s_bare_reply(code);
  }
  s_record_outcome(call, code);
  s_consolidate(call, code);
  char* const text = kv_worker_create_scan_reply(call.consolidated.get());
  return text == nullptr ? s_bare_reply(KV_RESULT_FAILED) : text;
}

}  // namespace

std::int32_t kv_worker_handle_scan_request(kv_worker_config_t* config,
                                           kv_const_request_reply_t* pair, json_object* request,
                                           worker_thread_parameters* thread) {
  KV_LOG_TRACE("Entering");
  scan_call call{.config = config,
                 .message = pair->request,
                 .request = request,
                 .thread = thread,
                 .start_ms = kv_current_time_ms()};
  const std::int32_t code = s_scan_guarded(call);
  std::free(pair->reply->json);
  pair->reply->json = s_reply(call, code);
  KV_LOG_DEBUG("Created JSON text buffer: %s",
               pair->reply->json == nullptr ? "" : pair->reply->json);
  constexpr std::int32_t rc = 0;
  KV_LOG_TRACE("Exiting, rc=%d", rc);
  return rc;
}
