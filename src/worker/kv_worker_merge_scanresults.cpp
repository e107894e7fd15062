#define KV_LOG_UNIT "kv_worker_RecursiveScan"
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "logging/log-helper.h"
#include "worker/kv_worker_scan_types.h"

namespace {

// Position of the first file row of each name. Rows without a name are passed over.
using s_name_index = std::unordered_map<std::string_view, std::int32_t>;

class s_mutex_guard {
 public:
  explicit s_mutex_guard(pthread_mutex_t* mutex) : mutex_(mutex) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kv_worker_merge_scanresults",
              "Locking mutex for result consolidation");
    pthread_mutex_lock(mutex_);
  }
  ~s_mutex_guard() { pthread_mutex_unlock(mutex_); }
  s_mutex_guard(const s_mutex_guard&) = delete;
  s_mutex_guard& operator=(const s_mutex_guard&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

bool s_is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

s_name_index s_index_names(const kv_scan_result_t* result) {
  s_name_index index;
  for (std::int32_t i = 0; i < result->file_count; ++i) {
    if (result->files[i]->file_name != nullptr) {
      index.emplace(result->files[i]->file_name, i);  // keeps the first of equal names
    }
  }
  return index;
}

// A text that is there is never replaced.
void s_fill_text(char*& to, const char* from) {
  if (s_is_empty(to) && !s_is_empty(from)) {
    kv_text_ptr previous{to};
    to = strdup(from);
  }
}

void s_update_entry(kv_file_scan_result_t* entry, const kv_file_scan_result_t* latest) {
  if (latest->return_code < entry->return_code) {
    entry->return_code = latest->return_code;  // the worse code wins
  }
  if (entry->file_size == 0) {
    entry->file_size = latest->file_size;
  }
  s_fill_text(entry->mime_type, latest->mime_type);
  s_fill_text(entry->mime_encoding, latest->mime_encoding);
  s_fill_text(entry->file_type, latest->file_type);
  s_fill_text(entry->extension, latest->extension);
  s_fill_text(entry->blocking_reason, latest->blocking_reason);
  s_fill_text(entry->error, latest->error);
  if (entry->object_type == 0) {  // so an object type that is not known, -1, stays
    entry->object_type = latest->object_type;
  }
}

int s_merge_entry(kv_scan_result_t* consolidated, s_name_index& index,
                  const kv_file_scan_result_t* latest) {
  const char* const name = latest->file_name == nullptr ? "" : latest->file_name;
  const auto known = latest->file_name == nullptr ? index.end() : index.find(name);
  if (known != index.end()) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kv_worker_merge_scanresults",
              "Consolidated entry for \"%s\" exists at index %d", name, known->second);
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kv_worker_merge_scanresults",
              "Updating consolidated entry of \"%s\"", name);
    s_update_entry(consolidated->files[known->second], latest);
    return 0;
  }
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kv_worker_merge_scanresults", "Adding new file entry for %s",
            name);
  if (kv_worker_add_file_scan_result(consolidated, latest) != 0) {
    return -1;
  }
  const std::int32_t added = consolidated->file_count - 1;
  index.emplace(consolidated->files[added]->file_name, added);
  return 0;
}

}  // namespace

int kv_worker_merge_scanresults(kv_scan_result_t* consolidated, const kv_scan_result_t* latest) {
  const std::int32_t count = latest == nullptr ? 0 : latest->file_count;
  KV_LOG_DEBUG("Consolidating scan results. Latest scan produced %d results", count);
  if (consolidated == nullptr) {
    KV_LOG_ERROR("Invalid pointer consolidated");
    return -1;
  }
  {
    const s_mutex_guard lock(&consolidated->mutex);
    s_name_index index = count == 0 ? s_name_index{} : s_index_names(consolidated);
    for (std::int32_t i = 0; i < count; ++i) {
      if (s_merge_entry(consolidated, index, latest->files[i]) != 0) {
        return -1;
      }
    }
  }
  KV_LOG_DEBUG("Unlocked mutex for result consolidation");
  return 0;
}
