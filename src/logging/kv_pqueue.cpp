#include "logging/kv_pqueue.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "common/KVstrerror.h"
#include "common/kv_uuid.h"
#include "common/kvhlp-path-file-operations.h"
#include "common/kvhlp_buffer_file.h"
#include "logging/log-helper.h"

namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr std::size_t kControlLineSize = 128;  // 127 characters and the terminator
constexpr std::size_t kPathSize = 4096;

using kv_dir_ptr = std::unique_ptr<DIR, kv_free_pointer<closedir>>;
using kv_file_ptr = std::unique_ptr<FILE, kv_free_pointer<std::fclose>>;

class s_descriptor {
 public:
  explicit s_descriptor(int fd) : fd_(fd) {}
  ~s_descriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  s_descriptor(const s_descriptor&) = delete;
  s_descriptor& operator=(const s_descriptor&) = delete;
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

// Calls visit(name, status) for every regular file of the directory. False when it cannot be read.
template <class Visit>
bool s_for_each_file(const char* directory, Visit visit) {
  const kv_dir_ptr dir{opendir(directory)};
  if (!dir) {
    return false;
  }
  while (const dirent* entry = readdir(dir.get())) {
    struct stat status {};
    if (fstatat(dirfd(dir.get()), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode)) {
      visit(std::string_view(entry->d_name), status);
    }
  }
  return true;
}

kv_pqueue_stat_t s_add(kv_pqueue_stat_t sum, std::string_view name, const struct stat& status) {
  ++sum.entries;
  sum.bytes += status.st_size;
  sum.temp_entries += name.starts_with(KV_PQUEUE_TEMP_PREFIX) ? 1 : 0;
  return sum;
}

// Several threads may push at once.
void s_store_counts(kv_pqueue_t* queue, const kv_pqueue_stat_t& stat) {
  std::atomic_ref(queue->entry_count).store(stat.entries, std::memory_order_relaxed);
  std::atomic_ref(queue->byte_count).store(stat.bytes, std::memory_order_relaxed);
}

// Counts the data directory anew; the counts stay as they are when it cannot be read.
kv_pqueue_stat_t s_update_queuestat(kv_pqueue_t* queue) {
  kv_pqueue_stat_t stat{};
  if (kv_pqueue_get_stat(queue, &stat) == 0) {
    s_store_counts(queue, stat);
    return stat;
  }
  stat.entries = std::atomic_ref(queue->entry_count).load(std::memory_order_relaxed);
  stat.bytes = std::atomic_ref(queue->byte_count).load(std::memory_order_relaxed);
  return stat;
}

// An unlock by a thread that does not hold the mutex is refused, not undefined.
void s_init_mutex(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

char* s_format_path(const char* directory, const char* name) {
  char* path = nullptr;
  return asprintf(&path, "%s/%s", directory, name) < 0 ? nullptr : path;
}

kv_pqueue_ptr s_new_record(const char* directory, const char* name, std::int64_t max_entries,
                           std::int64_t max_bytes, std::int32_t mode) {
  kv_pqueue_ptr queue{static_cast<kv_pqueue_t*>(std::calloc(1, sizeof(kv_pqueue_t)))};
  if (!queue) {
    KV_LOG_ERROR("Failed to allocate default values for queue");
    return nullptr;
  }
  queue->lock_fd = -1;
  s_init_mutex(&queue->mutex);
  queue->directory = strdup(directory);
  queue->data_directory = s_format_path(directory, "data");
  queue->control_file = s_format_path(directory, "control");
  if (asprintf(&queue->lock_name, "kv_%s", name) < 0) {
    queue->lock_name = nullptr;
  }
  if (queue->directory == nullptr || queue->data_directory == nullptr ||
      queue->control_file == nullptr || queue->lock_name == nullptr) {
    KV_LOG_ERROR("Failed to allocate default values for queue");
    return nullptr;
  }
  queue->max_entries = max_entries;
  queue->max_bytes = max_bytes;
  queue->mode = mode;
  return queue;
}

bool s_read_control_number(FILE* file, const char* path, std::int64_t& out) {
  std::array<char, kControlLineSize> line{};
  if (std::fgets(line.data(), static_cast<int>(line.size()), file) == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "s_read_controlfile", "failed to read control file %s: %s", path,
              KVstrerror(errno));
    return false;
  }
  out = std::strtoll(line.data(), nullptr, 10);
  return true;
}

// Replaces the limits by those of the control file, all three or none.
bool s_read_controlfile(kv_pqueue_t* queue) {
  const kv_file_ptr file{std::fopen(queue->control_file, "r")};
  if (!file) {
    KV_LOG_ERROR("failed to open control file %s: %s", queue->control_file, KVstrerror(errno));
    return false;
  }
  std::int64_t max_entries = 0;
  std::int64_t max_bytes = 0;
  std::int64_t mode = 0;
  if (!s_read_control_number(file.get(), queue->control_file, max_entries) ||
      !s_read_control_number(file.get(), queue->control_file, max_bytes) ||
      !s_read_control_number(file.get(), queue->control_file, mode)) {
    return false;
  }
  queue->max_entries = max_entries;
  queue->max_bytes = max_bytes;
  queue->mode = static_cast<std::int32_t>(mode);
  return true;
}

int s_save_controlfile(const kv_pqueue_t* queue) {
  if (queue == nullptr) {
    return -1;
  }
  const kv_file_ptr file{std::fopen(queue->control_file, "w")};
  if (!file) {
    return -1;
  }
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  const int written =
      std::fprintf(file.get(), "%ld\n%ld\n%d\n", queue->max_entries, queue->max_bytes, queue->mode);
  return written < 0 ? -1 : 0;
}

bool s_make_directory(const char* path) {
  constexpr const char* function = "kv_pqueue_create_new";
  if (mkdir(path, kDirectoryMode) != 0 && errno != EEXIST) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to create %s: %s", path, KVstrerror(errno));
    return false;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "Created %s", path);
  return true;
}

// What a creation that failed (on a full disk, say) has made must not pass for a queue later. What
// somebody else has put there in the meantime stays.
void s_remove_half_made(const kv_pqueue_t* queue) {
  struct stat control {};
  if (stat(queue->control_file, &control) == 0 && control.st_size == 0) {
    unlink(queue->control_file);
  }
  rmdir(queue->data_directory);
  rmdir(queue->directory);
}

// A process that died while it made the queue has left it without entries' directory or control
// file: nobody could push to it, or deliver from it, ever again.
void s_complete_half_made(const kv_pqueue_t* queue, int flags) {
  if ((flags & O_CREAT) == 0) {
    return;
  }
  static_cast<void>(mkdir(queue->data_directory, kDirectoryMode));
  if (kvhlp_IsFile(queue->control_file) == 0 && s_save_controlfile(queue) != 0) {
    KV_LOG_ERROR("Failed to save queue control file");
  }
}

// The umask is restored on success only; callers of a failed creation keep the open one.
kv_pqueue_ptr kv_pqueue_create_new(const char* directory, const char* name,
                                   std::int64_t max_entries, std::int64_t max_bytes,
                                   std::int32_t mode) {
  const mode_t previous = umask(0);
  kv_pqueue_ptr queue = s_new_record(directory, name, max_entries, max_bytes, mode);
  if (!queue) {
    KV_LOG_ERROR("Failed to create new queue metadata");
    return nullptr;
  }
  if (!s_make_directory(queue->directory) || !s_make_directory(queue->data_directory)) {
    s_remove_half_made(queue.get());
    return nullptr;
  }
  if (s_save_controlfile(queue.get()) != 0) {
    KV_LOG_ERROR("Failed to save queue control file");
    s_remove_half_made(queue.get());
    return nullptr;
  }
  KV_LOG_TRACE("Created %s", queue->control_file);
  umask(previous);
  return queue;
}

kv_pqueue_ptr s_open_existing(const char* directory, const char* name, std::int64_t max_entries,
                              std::int64_t max_bytes, int flags, std::int32_t mode) {
  KV_LOG_DEBUG("Queue %s exists and is accessible", directory);
  kv_pqueue_ptr queue = s_new_record(directory, name, max_entries, max_bytes, mode);
  if (!queue) {
    KV_LOG_ERROR("Failed to create new queue metadata");
    return nullptr;
  }
  if (!s_read_controlfile(queue.get())) {
    KV_LOG_ERROR("Failed to read controlfile");
    s_complete_half_made(queue.get(), flags);
    return queue;
  }
  if ((flags & ~O_TRUNC) == 0) {  // no flag at all truncates as well
    KV_LOG_DEBUG("Flag O_TRUNC passed, truncating queue %s", directory);
    static_cast<void>(kv_pqueue_purge(queue.get()));
  }
  s_complete_half_made(queue.get(), flags);
  KV_LOG_DEBUG("pqueue %s opened", directory);
  return queue;
}

struct s_entry_names {
  std::string final_name;
  std::string temp_name;
};

// Names of a new entry; a time-based UUID that is taken already is drawn again.
s_entry_names s_new_entry_names(const kv_pqueue_t* queue, char type) {
  s_entry_names names;
  do {
    const std::string uuid = kv_uuid_text(kv_uuid_from_time());
    const std::string folder = std::string(queue->data_directory) + '/';
    names.final_name = folder + type + uuid + ".dat";
    names.temp_name = folder + KV_PQUEUE_TEMP_PREFIX + type + uuid + ".dat";
  } while (kvhlp_IsFile(names.final_name.c_str()) != 0);
  return names;
}

// Puts what has been written so far for a path on the disk.
bool s_sync(const char* path, int flags) {
  const s_descriptor descriptor{open(path, flags | O_CLOEXEC)};
  return descriptor.get() >= 0 && fsync(descriptor.get()) == 0;
}

bool s_write_durably(const std::string& path, const void* data, std::size_t length) {
  return kvhlp_dump_buffer_to_file(data, length, path.c_str()) == 0 &&
         s_sync(path.c_str(), O_RDONLY);
}

bool s_is_full(const kv_pqueue_t* queue, const kv_pqueue_stat_t& stat, std::size_t length) {
  const auto added = static_cast<std::int64_t>(length);
  return stat.entries + 1 > queue->max_entries || added > queue->max_bytes - stat.bytes;
}

struct s_oldest_file {
  std::string name;
  std::time_t time;
};

// One pass over the data directory: the oldest file of the type, and the counts.
bool s_scan(kv_pqueue_t* queue, char type, s_oldest_file& oldest) {
  kv_pqueue_stat_t stat{};
  oldest = {{}, std::time(nullptr) + 1};  // files dated in the future are not candidates
  const bool scanned =
      s_for_each_file(queue->data_directory, [&](std::string_view name, const struct stat& status) {
        stat = s_add(stat, name, status);
        if (name.front() == type && status.st_mtime < oldest.time) {
          oldest.name = name;
          oldest.time = status.st_mtime;
        }
      });
  if (scanned) {
    s_store_counts(queue, stat);
  }
  return scanned;
}

kv_pqueue_data_ptr s_read_entry(const kv_pqueue_t* queue, const std::string& name) {
  kv_pqueue_data_ptr entry{
      static_cast<kv_pqueue_data_t*>(std::calloc(1, sizeof(kv_pqueue_data_t)))};
  if (!entry) {
    KV_LOG_ERROR("Failed to allocate memory for %s", "data");
    return nullptr;
  }
  entry->path = s_format_path(queue->data_directory, name.c_str());
  entry->type = name.front();
  if (entry->path == nullptr || kvhlp_GetFileSize(entry->path, &entry->size) != 0) {
    KV_LOG_ERROR("Failed to get size of %s: %s", name.c_str(), KVstrerror(errno));
    return nullptr;
  }
  entry->data = static_cast<unsigned char*>(std::calloc(1, entry->size + 1));
  if (entry->data == nullptr) {
    KV_LOG_ERROR("Failed to allocate memory for %s", "data->data");
    return nullptr;
  }
  if (kvhlp_read_buffer_from_file(entry->data, entry->size, entry->path) != 0) {
    KV_LOG_ERROR("Failed to read %s into buffer: %s", entry->path, KVstrerror(errno));
    return nullptr;
  }
  return entry;
}

}  // namespace

kv_pqueue_t* kv_pqueue_open(const char* parent, const char* name, std::int64_t max_entries,
                            std::int64_t max_bytes, int flags, std::int32_t mode) {
  if (name == nullptr || parent == nullptr) {
    KV_LOG_ERROR("Invalid parameters");
    KV_LOG_ERROR("Failed to create new queue metadata");
    return nullptr;
  }
  std::array<char, kPathSize> directory{};
  std::snprintf(directory.data(), directory.size(), "%s%c%s", parent, '/', name);
  if (kvhlp_IsDir(directory.data()) != 0 && kvhlp_IsWritable(directory.data()) != 0) {
    return s_open_existing(directory.data(), name, max_entries, max_bytes, flags, mode).release();
  }
  if ((flags & ~O_CREAT) != 0) {
    errno = ENOENT;
    return nullptr;
  }
  if (kvhlp_IsWritable(directory.data()) != 0) {  // there, but no directory
    KV_LOG_ERROR("%s not writable - check permissions", directory.data());
    return nullptr;
  }
  return kv_pqueue_create_new(directory.data(), name, max_entries, max_bytes, mode).release();
}

int kv_pqueue_close(kv_pqueue_t* queue) {
  if (queue == nullptr) {
    return -1;
  }
  std::free(queue->directory);
  std::free(queue->data_directory);
  std::free(queue->control_file);
  std::free(queue->lock_name);
  std::free(queue);
  return 0;
}

int kv_pqueue_push(kv_pqueue_t* queue, char type, const void* data, std::size_t length) {
  if (queue == nullptr || data == nullptr || length == 0) {
    KV_LOG_ERROR("Invalid parameters");
    return -1;
  }
  const kv_pqueue_stat_t stat = s_update_queuestat(queue);
  if (s_is_full(queue, stat, length)) {
    KV_LOG_WARN("Queue full: %d Elements (max %d), %d bytes (max %d)",
                static_cast<std::int32_t>(stat.entries),
                static_cast<std::int32_t>(queue->max_entries),
                static_cast<std::int32_t>(stat.bytes), static_cast<std::int32_t>(queue->max_bytes));
    return -1;
  }
  const s_entry_names names = s_new_entry_names(queue, type);
  if (!s_write_durably(names.temp_name, data, length)) {
    KV_LOG_ERROR("Failed to write buffer to file %s, %s", names.temp_name.c_str(),
                 KVstrerror(errno));
    unlink(names.temp_name.c_str());
    return -1;
  }
  if (std::rename(names.temp_name.c_str(), names.final_name.c_str()) != 0) {
    KV_LOG_ERROR("Failed to rename %s to %s: %s", names.temp_name.c_str(), names.final_name.c_str(),
                 KVstrerror(errno));
    unlink(names.temp_name.c_str());
    return -1;
  }
  if (!s_sync(queue->data_directory, O_RDONLY | O_DIRECTORY)) {
    KV_LOG_ERROR("Failed to sync %s: %s", queue->data_directory, KVstrerror(errno));
    unlink(names.final_name.c_str());  // not acknowledged, so it must not stay
    return -1;
  }
  static_cast<void>(s_update_queuestat(queue));
  return 0;
}

kv_pqueue_data_t* kv_pqueue_pop(kv_pqueue_t* queue, char type) {
  if (type != KV_PQUEUE_EVENT && type != KV_PQUEUE_LOG) {
    KV_LOG_ERROR("Invalid prefix filter");
    return nullptr;
  }
  s_oldest_file oldest{};
  if (queue == nullptr || !s_scan(queue, type, oldest) || oldest.name.empty()) {
    return nullptr;
  }
  return s_read_entry(queue, oldest.name).release();
}

int kv_pqueue_data_free(kv_pqueue_data_t* entry) {
  if (entry == nullptr) {
    return -1;
  }
  std::free(entry->path);
  std::free(entry->data);
  std::free(entry);
  return 0;
}

int kv_pqueue_lock(kv_pqueue_t* queue) {
  if (queue == nullptr) {
    return -1;
  }
  s_descriptor descriptor{open(queue->control_file, O_RDWR | O_CLOEXEC)};
  if (descriptor.get() < 0) {
    KV_LOG_ERROR("Failed to open %s: %s", queue->control_file, KVstrerror(errno));
    return -1;
  }
  if (flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0) {
    return -1;  // a holder in this process keeps its own descriptor
  }
  pthread_mutex_lock(&queue->mutex);
  queue->lock_fd = descriptor.release();
  return 0;
}

int kv_pqueue_unlock(kv_pqueue_t* queue) {
  if (queue == nullptr) {
    KV_LOG_TRACE("queue %s", "unlock FAILED");
    return -1;
  }
  if (queue->lock_fd < 0) {
    // The mutex is held only together with the descriptor, so there is nothing to release.
    KV_LOG_TRACE("queue %s", "unlock FAILED");
    return -1;
  }
  flock(queue->lock_fd, LOCK_UN);
  close(queue->lock_fd);
  queue->lock_fd = -1;
  pthread_mutex_unlock(&queue->mutex);
  KV_LOG_TRACE("queue %s", "unlocked");
  return 0;
}

int kv_pqueue_purge(kv_pqueue_t* queue) {
  if (queue == nullptr) {
    return -1;
  }
  const bool locked = kv_pqueue_lock(queue) == 0;
  static_cast<void>(kvhlp_RemoveDir(queue->data_directory));
  static_cast<void>(mkdir(queue->data_directory, kDirectoryMode));
  s_store_counts(queue, {});
  const int rc = s_save_controlfile(queue);
  if (rc != 0) {
    KV_LOG_ERROR("Failed to save queue control file");
  }
  if (locked) {
    kv_pqueue_unlock(queue);
  }
  return rc;
}

int kv_pqueue_get_stat(const kv_pqueue_t* queue, kv_pqueue_stat_t* stat) {
  kv_pqueue_stat_t sum{};
  if (queue == nullptr ||
      !s_for_each_file(queue->data_directory,
                       [&sum](std::string_view name, const struct stat& status) {
                         sum = s_add(sum, name, status);
                       })) {
    return -1;
  }
  *stat = sum;
  return 0;
}
