#pragma once
// Persistent queue: messages that outlive broker outages, crashes and restarts, one file each,
// shared by the processes of one machine. Producers never lock: a message becomes visible by a
// rename, after its bytes are on the disk. Consumers hold the queue's lock, an exclusive flock(2)
// on its control file, which the system releases when its process dies. Delivery is at least once:
// a popped entry stays until its file is unlinked. The layout on disk is told in
// docs/queue-format.md.

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "common/kv_guard.h"

// Types of entry: the first character of an entry's file name.
inline constexpr char KV_PQUEUE_LOG = 'L';
inline constexpr char KV_PQUEUE_EVENT = 'E';

// Prefix of an entry that is still being written; it matches no type.
inline constexpr const char* KV_PQUEUE_TEMP_PREFIX = "temp_";

// Texts are owned and come from the C allocator. The limits are constant once the queue is open;
// the counts are unsynchronised snapshots of the data directory.
struct kv_pqueue_t {
  char* directory;
  char* data_directory;
  char* control_file;
  char* lock_name;
  std::int32_t lock_fd;  // of the control file while this record holds the queue, else -1
  std::int64_t max_entries;
  std::int64_t max_bytes;
  std::int64_t entry_count;
  std::int64_t byte_count;
  std::int32_t mode;      // stored and read back, not interpreted
  pthread_mutex_t mutex;  // held while the queue is locked
};

// A popped entry.
struct kv_pqueue_data_t {
  char* path;  // the entry's file: also its identity
  char type;
  unsigned char* data;  // size + 1 bytes, zero-terminated
  std::uint64_t size;
};

// Opens the queue P/N; flags are O_CREAT and O_TRUNC. The control file of an existing queue decides
// its limits, not the caller. Null on failure, with errno ENOENT for a missing queue that may not
// be made.
[[nodiscard]] kv_pqueue_t* kv_pqueue_open(const char* parent, const char* name,
                                          std::int64_t max_entries, std::int64_t max_bytes,
                                          int flags, std::int32_t mode);
// Frees the record; neither unlocks the queue nor touches the disk. 0, or -1 for null.
int kv_pqueue_close(kv_pqueue_t* queue);
using kv_pqueue_ptr = std::unique_ptr<kv_pqueue_t, kv_free_pointer<kv_pqueue_close>>;

// Adds an entry; it is durable when 0 is returned. -1 when it was not added. Any thread, any
// process.
[[nodiscard]] int kv_pqueue_push(kv_pqueue_t* queue, char type, const void* data,
                                 std::size_t length);
// The oldest entry of a type, or null. Its file stays in place.
[[nodiscard]] kv_pqueue_data_t* kv_pqueue_pop(kv_pqueue_t* queue, char type);
int kv_pqueue_data_free(kv_pqueue_data_t* entry);
using kv_pqueue_data_ptr = std::unique_ptr<kv_pqueue_data_t, kv_free_pointer<kv_pqueue_data_free>>;

// 0 when the caller now holds the queue, -1 otherwise; never waits for another process.
[[nodiscard]] int kv_pqueue_lock(kv_pqueue_t* queue);
int kv_pqueue_unlock(kv_pqueue_t* queue);
// Empties the queue. 0 or -1.
[[nodiscard]] int kv_pqueue_purge(kv_pqueue_t* queue);

// What lies in the data directory.
struct kv_pqueue_stat_t {
  std::int64_t entries;       // regular files
  std::int64_t bytes;         // their total size
  std::int64_t temp_entries;  // of these, files that a push left half written
};
// Counts the data directory. 0 or -1.
[[nodiscard]] int kv_pqueue_get_stat(const kv_pqueue_t* queue, kv_pqueue_stat_t* stat);
