#define KV_LOG_UNIT "kv_worker"
#include "worker/kv_worker_scan_types.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "common/KVstrerror.h"
#include "logging/log-helper.h"

namespace {

// An absent text becomes an empty one. False when out of memory.
bool s_copy_text(char*& to, const char* from) {
  to = strdup(from == nullptr ? "" : from);
  return to != nullptr;
}

kv_file_scan_result_ptr s_deep_copy(const kv_file_scan_result_t& from) {
  kv_file_scan_result_ptr copy{kv_worker_new_file_scan_result()};
  if (!copy) {
    return nullptr;
  }
  copy->return_code = from.return_code;
  copy->file_size = from.file_size;
  copy->object_type = from.object_type;
  const bool complete = s_copy_text(copy->file_name, from.file_name) &&
                        s_copy_text(copy->mime_type, from.mime_type) &&
                        s_copy_text(copy->mime_encoding, from.mime_encoding) &&
                        s_copy_text(copy->file_type, from.file_type) &&
                        s_copy_text(copy->extension, from.extension) &&
                        s_copy_text(copy->blocking_reason, from.blocking_reason) &&
                        s_copy_text(copy->error, from.error);
  return complete ? std::move(copy) : nullptr;
}

}  // namespace

kv_scan_result_t* kv_worker_new_scan_result() {
  auto* const result = new (std::nothrow) kv_scan_result_t{};
  if (result == nullptr) {
    KV_LOG_ERROR("Failed to allocate new scan result struct");
    return nullptr;
  }
  pthread_mutex_init(&result->mutex, nullptr);
  return result;
}

void kv_worker_free_scan_result(kv_scan_result_t** result) {
  if (result == nullptr || *result == nullptr) {
    return;
  }
  kv_scan_result_t* const gone = *result;
  *result = nullptr;
  for (std::int32_t i = 0; i < gone->file_count; ++i) {
    kv_worker_free_file_scan_result(&gone->files[i]);
  }
  std::free(gone->files);
  std::free(gone->reasons);
  std::free(gone->error);
  std::free(gone->buffer);
  pthread_mutex_destroy(&gone->mutex);
  delete gone;
}

kv_file_scan_result_t* kv_worker_new_file_scan_result() {
  auto* const result = new (std::nothrow) kv_file_scan_result_t{};
  if (result == nullptr) {
    KV_LOG_ERROR("Failed to allocate new file scan result struct");
    return nullptr;
  }
  result->object_type = -1;
  return result;
}

void kv_worker_free_file_scan_result(kv_file_scan_result_t** result) {
  if (result == nullptr || *result == nullptr) {
    return;
  }
  kv_file_scan_result_t* const gone = *result;
  *result = nullptr;
  for (char* text : {gone->file_name, gone->mime_type, gone->mime_encoding, gone->file_type,
                     gone->extension, gone->blocking_reason, gone->error}) {
    std::free(text);
  }
  delete gone;
}

int kv_worker_add_file_scan_result(kv_scan_result_t* result, const kv_file_scan_result_t* file) {
  if (result == nullptr || file == nullptr) {
    KV_LOG_ERROR("got NULL pointer");
    return -1;
  }
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): what was made of a copy is freed
  kv_file_scan_result_ptr copy = s_deep_copy(*file);
  if (!copy) {
    return -1;
  }
  const auto count = static_cast<std::size_t>(result->file_count);
  // NOLINTNEXTLINE(bugprone-sizeof-expression): the array is one of pointers
  void* const grown = std::realloc(result->files, (count + 1) * sizeof(*result->files));
  if (grown == nullptr) {
    KV_LOG_ERROR("Failed to reallocate filescan results: %s", KVstrerror(errno));
    return -1;
  }
  result->files = static_cast<kv_file_scan_result_t**>(grown);
  result->files[count] = copy.release();
  ++result->file_count;
  return 0;
}
