#include "worker/kv_worker_RecursiveScan.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "common/KVstrerror.h"
#include "common/kv_json.h"
#include "common/kv_time.h"
#include "common/kvhlp-path-file-operations.h"
#include "common/kvsemaphore.h"
#include "logging/log-helper.h"
#include "messaging/kv_shm.h"
#include "worker/kv_worker_RecursiveScan_service.h"

namespace {

constexpr const char* kFunction = "kvworker_RecursiveScan";
constexpr std::string_view kMimescan = "kv-av-mimescan";
// Services that only pass objects on: asking them would bring the object round again.
constexpr std::array kSkippedServices{"kv-av-cloudscan", "kv-av-scanproxy"};
constexpr std::int32_t kNoSegment = -1;
constexpr std::int64_t kSlotWaitStepMs = 1000;

bool s_is_skipped(const char* service) {
  for (const char* skipped : kSkippedServices) {
    if (strcasecmp(service, skipped) == 0) {
      return true;
    }
  }
  return false;
}

std::size_t s_count_services(const char* services) {
  const std::string_view text = services;
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), ';')) + 1;
}

void s_copy_to_buffer(char* buffer, const std::string& text) {
  if (buffer != nullptr) {
    std::snprintf(buffer, KV_ERROR_TEXT_SIZE, "%s", text.c_str());
  }
}

constexpr bool s_is_blocking(std::int32_t code) {
  return code == KV_RESULT_NOT_READABLE || (code <= -199 && code != KV_RESULT_FAILED);
}

void s_set_error(kv_scan_result_t* result, const std::string& text) {
  pthread_mutex_lock(&result->mutex);
  kv_text_ptr previous{result->error};
  result->error = strdup(text.c_str());
  pthread_mutex_unlock(&result->mutex);
}

// The text goes where the reply of the whole job finds it: with the reason when the code blocks,
// with the error when the scan failed or was not completed.
std::int32_t s_report(const kv_recursive_scan_args_t& args, std::int32_t code,
                      const std::string& text) {
  if (code != KV_RESULT_CLEAN && !text.empty()) {
    s_set_error(args.consolidated, text);
    if (s_is_blocking(code)) {
      s_copy_to_buffer(args.reason, text);
    }
    if (code == KV_RESULT_NOT_READABLE || !s_is_blocking(code)) {
      s_copy_to_buffer(args.error, text);
    }
  }
  return code;
}

std::int32_t s_fail(const kv_recursive_scan_args_t& args, const std::string& text) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "%s", text.c_str());
  return s_report(args, KV_RESULT_FAILED, text);
}

// An object that cannot be handed on stands in the results by itself.
void s_record_object(const kv_recursive_scan_args_t& args) {
  const kv_file_scan_result_ptr file{kv_worker_new_file_scan_result()};
  if (!file) {
    return;
  }
  file->return_code = KV_RESULT_FAILED;
  file->file_name = strdup(args.name);
  file->file_size = args.length;
  pthread_mutex_lock(&args.consolidated->mutex);
  static_cast<void>(kv_worker_add_file_scan_result(args.consolidated, file.get()));
  pthread_mutex_unlock(&args.consolidated->mutex);
}

std::int32_t s_check_data(const kv_recursive_scan_args_t& args) {
  if (args.data == nullptr && args.length != 0) {
    s_record_object(args);
    return s_fail(args, "Data is NULL, but length is " + std::to_string(args.length));
  }
  if (args.data == nullptr || args.length == 0) {
    KV_LOG_AS(KV_LOG_LEVEL_INFO, kFunction, "No data to scan");
    s_record_object(args);
    return s_report(args, KV_RESULT_FAILED, "No data to scan");
  }
  return KV_RESULT_CLEAN;
}

// The segment that carries the object. This process stays attached until the last service has
// answered: its detach removes the segment, whether a service attached it or not.
class s_shared_object {
 public:
  s_shared_object() = default;
  s_shared_object(const s_shared_object&) = delete;
  s_shared_object& operator=(const s_shared_object&) = delete;

  // Null, or why it failed.
  [[nodiscard]] const char* share(const void* data, std::uint64_t length) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kFunction, "Using shared memory for recursive scan");
    const int id = kvshm_create(length, 0);
    if (id < 0) {
      return "Failed to create shared memory segment";
    }
    if (!segment_.attach(id, length, kFunction)) {  // which has marked it for removal
      return "Failed to attach to shared memory segment";
    }
    std::memcpy(segment_.bytes().data(), data, length);
    id_ = id;
    return nullptr;
  }
  [[nodiscard]] std::int32_t id() const { return id_; }

 private:
  kv_shm_segment segment_;
  std::int32_t id_ = kNoSegment;
};

// The service's own name, without that of a fallback.
bool s_is_mimescan(std::string_view service) {
  return service.substr(0, service.find(KV_FALLBACK_MARK)) == kMimescan;
}

// Tells the following services what the MIME scan found.
void s_add_mimescan(json_object* request, const kv_scan_result_t* result) {
  if (result->file_count == 0) {
    return;
  }
  const kv_file_scan_result_t& file = *result->files[0];
  const auto add_text = [request](const char* key, const char* text) {
    json_object_object_add(request, key, json_object_new_string(text == nullptr ? "" : text));
  };
  add_text("MIME-type", file.mime_type);
  add_text("MIME-encoding", file.mime_encoding);
  add_text("File-type", file.file_type);
  add_text("Extension", file.extension);
  json_object_object_add(request, "Object-type", json_object_new_int(file.object_type));
}

// One recursive scan from its first service to its last.
class s_chain {
 public:
  s_chain(const kv_recursive_scan_args_t& args, std::uint64_t start_ms)
      : args_(args), start_ms_(start_ms) {}

  [[nodiscard]] std::int32_t run() {
    const kv_services_ptr services = read_services();
    if (!services) {
      return KV_RESULT_FAILED;
    }
    if (!share_object() || !make_request()) {
      return KV_RESULT_FAILED;
    }
    for (std::size_t i = 0; services[i] != nullptr; ++i) {
      if (const std::int32_t code = ask(services[i]); code != KV_RESULT_CLEAN) {
        return code;
      }
    }
    return KV_RESULT_CLEAN;
  }

 private:
  kv_services_ptr read_services() {
    std::string services;
    const kv_json_presence presence = kv_json_get_text(args_.job->request, "Services", services);
    if (presence != kv_json_presence::present) {
      static_cast<void>(s_fail(args_, kv_json_presence_message(presence, "Services")));
      return nullptr;
    }
    kv_services_ptr list{s_tokenize_services(services.c_str())};
    if (!list) {
      static_cast<void>(s_fail(args_, "Failed to create services list"));
    }
    return list;
  }

  bool share_object() {
    if (!args_.use_shared_memory) {
      return true;
    }
    const char* const failure = shared_.share(args_.data, args_.length);
    if (failure != nullptr) {
      static_cast<void>(s_fail(args_, failure));
    }
    return failure == nullptr;
  }

  bool make_request() {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kFunction, "Creating Scanjob JSON for recursive scan");
    std::array<char, KV_ERROR_TEXT_SIZE> error{};
    request_.reset(s_kv_worker_encodescanjobtoJSON(
        args_.job->request, args_.recursion, shared_.id(), args_.name, args_.length, error.data()));
    if (!request_) {
      KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "Failed to allocate recursion scanjob JSON");
      static_cast<void>(s_report(
          args_, KV_RESULT_FAILED,
          error.front() != '\0' ? error.data() : "Failed to allocate recursion scanjob JSON"));
      return false;
    }
    return print_request("Failed to allocate recursion scanjob JSON");
  }

  bool print_request(const char* failure) {
    text_ = kv_json_print(request_.get(), KV_JSON_PRETTY);
    if (!text_) {
      static_cast<void>(s_fail(args_, failure));
    }
    return text_ != nullptr;
  }

  std::int32_t ask(const char* service) {
    const std::int32_t timeout_ms = kv_recursive_timeout_ms(start_ms_, args_.time_left_ms);
    if (timeout_ms <= 0) {
      return s_fail(args_, KV_SERVICE_SIDE_TIMEOUT);
    }
    kv_scan_result_ptr result{kv_worker_new_scan_result()};
    if (!result) {
      return s_fail(args_, "Failed to allocate results struct for this scan");
    }
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kFunction, "Scanning with service %s, timeout: %dms", service,
              timeout_ms);
    const kv_service_answer_t answer =
        s_kv_worker_RecursiveScanWithService(call_of(service), result);
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kFunction, "Service %s returns %d", service, answer.code);
    return take(service, answer, result.get());
  }

  [[nodiscard]] kv_service_call_t call_of(const char* service) const {
    const bool in_message = shared_.id() == kNoSegment;
    return {args_.process, service,    text_.get(), in_message ? args_.data : nullptr,
            args_.length,  args_.name, start_ms_,   args_.time_left_ms};
  }

  std::int32_t take(const char* service, const kv_service_answer_t& answer,
                    const kv_scan_result_t* result) {
    if (s_is_mimescan(service) && answer.code == KV_RESULT_CLEAN && !answer.is_fallback) {
      s_add_mimescan(request_.get(), result);
      if (!print_request("Failed to update scan request with MIME-scan results")) {
        return KV_RESULT_FAILED;
      }
    }
    if (kv_worker_merge_scanresults(args_.consolidated, result) != 0) {
      return s_fail(args_, "Failed to merge scan results");
    }
    return s_report(args_, answer.code, answer.text);
  }

  const kv_recursive_scan_args_t& args_;
  std::uint64_t start_ms_;
  s_shared_object shared_;
  kv_json_ptr request_;
  kv_text_ptr text_;
};

std::int32_t s_scan(const kv_recursive_scan_args_t& args) {
  const std::uint64_t start_ms = kv_current_time_ms();
  if (args.recursion >= args.job->extract_depth) {
    pthread_mutex_lock(&args.consolidated->mutex);
    args.consolidated->return_code = KV_RESULT_EXTRACTION_DEPTH;
    pthread_mutex_unlock(&args.consolidated->mutex);
    return s_report(args, KV_RESULT_EXTRACTION_DEPTH, "Maximum extraction depth reached");
  }
  if (const std::int32_t code = s_check_data(args); code != KV_RESULT_CLEAN) {
    return code;
  }
  return s_chain(args, start_ms).run();
}

// One slot of the process, for the life of the object.
class s_slot {
 public:
  s_slot(sem_t* slots, std::int64_t limit_ms) : slots_(slots), taken_(slots == nullptr) {
    const std::uint64_t start_ms = kv_current_time_ms();
    while (!taken_ && kv_recursive_timeout_ms(start_ms, limit_ms) > 0) {
      taken_ = KVsem_timedwait(slots_, kSlotWaitStepMs) == 0;
    }
  }
  ~s_slot() {
    if (slots_ == nullptr || !taken_) {
      return;
    }
    if (KVsem_post(slots_) == 0) {
      KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvworker_RecursiveScan_thread",
                "Released semaphore slot for recursive scan");
    } else {
      KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kvworker_RecursiveScan_thread",
                "Failed to release semaphore slot");
    }
  }
  s_slot(const s_slot&) = delete;
  s_slot& operator=(const s_slot&) = delete;
  [[nodiscard]] bool is_taken() const { return taken_; }

 private:
  sem_t* slots_;
  bool taken_;
};

// The wait for a slot is part of the scan's time.
std::int32_t s_scan_with_slot(kv_recursive_scan_args_t args) {
  const std::uint64_t start_ms = kv_current_time_ms();
  const s_slot slot(args.process->slots, args.time_left_ms);
  if (!slot.is_taken()) {
    return s_fail(args, KV_SERVICE_SIDE_TIMEOUT);
  }
  if (args.time_left_ms != KV_NO_TIME_LIMIT) {
    args.time_left_ms -= static_cast<std::int64_t>(kv_current_time_ms() - start_ms);
  }
  return kvworker_RecursiveScan(args);
}

}  // namespace

kv_recursive_scan_t* kv_recursive_scan_new(kv_amqp_config* amqp, std::int32_t threads) {
  std::unique_ptr<kv_recursive_scan_t> process{new (std::nothrow) kv_recursive_scan_t{}};
  if (!process) {
    return nullptr;
  }
  process->amqp = amqp;
  const std::string name = "/kv_recursive_scan_" + std::to_string(getpid());
  sem_t* const slots =
      KVsem_open(name.c_str(), O_CREAT, 0600, 0, static_cast<unsigned>(std::max(threads, 1)));
  if (slots == SEM_FAILED) {
    KV_LOG_ERROR("Failed to open semaphore \"%s\": %s", name.c_str(), KVstrerror(errno));
  } else {
    static_cast<void>(KVsem_unlink(name.c_str()));
    process->slots = slots;
  }
  return process.release();
}

void kv_recursive_scan_free(kv_recursive_scan_t** process) {
  if (process == nullptr || *process == nullptr) {
    return;
  }
  if ((*process)->slots != nullptr) {
    sem_close((*process)->slots);
  }
  delete *process;
  *process = nullptr;
}

std::int32_t kvworker_RecursiveScan(const kv_recursive_scan_args_t& args) {
  std::int32_t code = KV_RESULT_FAILED;
  try {
    code = s_scan(args);
  } catch (const std::exception& error) {
    code = s_fail(args, error.what());
  }
  KV_LOG_DEBUG("Returning %d", code);
  return code;
}

void* kvworker_RecursiveScan_thread(void* args) {
  auto* const scan = static_cast<kv_recursive_scan_args_t*>(args);
  scan->result = s_scan_with_slot(*scan);
  return nullptr;
}

std::int32_t kv_recursive_scan_embedded(void* context, scanobject* job,
                                        kv_scan_result_t* consolidated, const void* data,
                                        std::uint64_t length, const char* name, std::uint8_t flag,
                                        std::int64_t time_left_ms, char* reason, char* error) {
  return s_scan_with_slot({.process = static_cast<kv_recursive_scan_t*>(context),
                           .consolidated = consolidated,
                           .job = job,
                           .data = data,
                           .length = length,
                           .name = name,
                           .time_left_ms = time_left_ms,
                           .recursion = job->recursion,
                           .use_shared_memory = flag != 0,
                           .reason = reason,
                           .error = error,
                           .result = KV_RESULT_CLEAN});
}

char** s_tokenize_services(const char* services) {
  KV_LOG_DEBUG("tokenizing %s", services);
  const std::size_t count = s_count_services(services);
  KV_LOG_DEBUG("Identified %zu services", count);
  kv_services_ptr list{static_cast<char**>(std::calloc(count + 1, sizeof(char*)))};
  if (!list) {
    return nullptr;
  }
  std::size_t found = 0;
  const std::string_view text = services;
  std::size_t position = 0;
  for (std::size_t number = 0; position < text.size();) {
    const std::size_t end = std::min(text.find(';', position), text.size());
    const std::string token(text.substr(position, end - position));
    position = end + 1;
    if (token.empty()) {
      continue;  // a run of separators counts as one
    }
    if (s_is_skipped(token.c_str())) {
      KV_LOG_DEBUG("Skipping %s", token.c_str());
      continue;
    }
    KV_LOG_DEBUG("token #%zu: %s", number++, token.c_str());
    list[found] = strdup(token.c_str());
    if (list[found++] == nullptr) {
      KV_LOG_ERROR("Empty service name");
      return nullptr;
    }
  }
  return list.release();
}

void kv_services_free(char*** services) {
  if (services == nullptr || *services == nullptr) {
    return;
  }
  for (char** name = *services; *name != nullptr; ++name) {
    std::free(*name);
  }
  std::free(*services);
  *services = nullptr;
}

int kvworker_getLatestDir(const char* base, char* out) {
  const std::string number_file = std::string(base) + "/latest.tms";
  const int number =
      kvhlp_IsFile(number_file.c_str()) != 0 ? kvhlp_ReadIntValue(number_file.c_str(), 0) : 0;
  if (number > 0) {
    std::snprintf(out, KV_LATEST_DIR_SIZE, "%s/%d", base, number);
  } else {
    std::snprintf(out, KV_LATEST_DIR_SIZE, "%s/default", base);
  }
  return 0;
}
