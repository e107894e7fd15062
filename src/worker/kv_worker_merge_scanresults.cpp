#define KV_LOG_UNIT "kv_worker_RecursiveScan"
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>

#include "logging/log-helper.h"
#include "worker/kv_worker_scan_types.h"

namespace {

// Positions of the consolidated rows by their names. Lives in the result's further buffer from
// merge to merge and takes in only the rows that are new: a job may have a hundred thousand
// children, each merged by itself. Open addressing with linear probing; rows of a name that is
// known already are left out, so that the first match wins.
struct s_index_header {
  std::size_t capacity;  // slots behind the header, a power of two
  std::int32_t covered;  // rows taken in so far
};

constexpr std::int32_t kFree = -1;
constexpr std::size_t kSmallest = 16;

class s_name_index {
 public:
  explicit s_name_index(kv_scan_result_t* result) : result_(result) {}

  // Takes in the rows that are new. False when out of memory.
  [[nodiscard]] bool update() {
    auto* header = static_cast<s_index_header*>(result_->buffer);
    const auto rows = static_cast<std::size_t>(result_->file_count);
    if (header == nullptr || header->covered > result_->file_count || 2 * rows > header->capacity) {
      header = make(rows);
    }
    if (header == nullptr) {
      return false;
    }
    for (; header->covered < result_->file_count; ++header->covered) {
      take_in(header->covered);
    }
    return true;
  }

  // The row's position, or kFree.
  [[nodiscard]] std::int32_t find(std::string_view name) const { return *slot_of(name); }

 private:
  s_index_header* make(std::size_t rows) {
    const std::size_t capacity = std::bit_ceil(std::max(4 * rows, kSmallest));
    std::free(result_->buffer);
    result_->buffer = std::malloc(sizeof(s_index_header) + capacity * sizeof(std::int32_t));
    if (result_->buffer == nullptr) {
      return nullptr;
    }
    auto* const header = new (result_->buffer) s_index_header{capacity, 0};
    std::fill_n(slots(), capacity, kFree);
    return header;
  }

  void take_in(std::int32_t row) {
    if (result_->files[row]->file_name == nullptr) {
      return;
    }
    std::int32_t* const slot = slot_of(result_->files[row]->file_name);
    if (*slot == kFree) {
      *slot = row;
    }
  }

  // The slot that holds the name, or the free one where it belongs.
  [[nodiscard]] std::int32_t* slot_of(std::string_view name) const {
    const std::size_t mask = static_cast<s_index_header*>(result_->buffer)->capacity - 1;
    std::size_t at = std::hash<std::string_view>{}(name)&mask;
    while (slots()[at] != kFree && name != name_of(slots()[at])) {
      at = (at + 1) & mask;
    }
    return slots() + at;
  }

  [[nodiscard]] std::string_view name_of(std::int32_t row) const {
    const char* const name = result_->files[row]->file_name;
    return name == nullptr ? std::string_view{} : name;
  }

  [[nodiscard]] std::int32_t* slots() const {
    return reinterpret_cast<std::int32_t*>(static_cast<s_index_header*>(result_->buffer) + 1);
  }

  kv_scan_result_t* result_;
};

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

int s_merge_entry(kv_scan_result_t* consolidated, const kv_file_scan_result_t* latest) {
  constexpr const char* function = "kv_worker_merge_scanresults";
  s_name_index index(consolidated);
  if (!index.update()) {
    return -1;
  }
  const char* const name = latest->file_name == nullptr ? "" : latest->file_name;
  const std::int32_t known = latest->file_name == nullptr ? kFree : index.find(name);
  if (known != kFree) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, function, "Consolidated entry for \"%s\" exists at index %d",
              name, known);
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, function, "Updating consolidated entry of \"%s\"", name);
    s_update_entry(consolidated->files[known], latest);
    return 0;
  }
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, function, "Adding new file entry for %s", name);
  return kv_worker_add_file_scan_result(consolidated, latest);
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
    for (std::int32_t i = 0; i < count; ++i) {
      if (s_merge_entry(consolidated, latest->files[i]) != 0) {
        return -1;
      }
    }
  }
  KV_LOG_DEBUG("Unlocked mutex for result consolidation");
  return 0;
}
