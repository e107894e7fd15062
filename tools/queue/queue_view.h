#pragma once
// Read-only view of a persistent queue on disk, and the removals that kv-av-queue offers. Reads the
// same layout that kv_pqueue.h writes; never takes a worker's place as consumer.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

struct queue_entry {
  std::string name;
  char type;  // 'L', 'E', or '?' for anything that no worker would deliver
  bool temporary;
  std::uint64_t size;
  std::time_t time;
};

struct queue_limits {
  long max_entries;
  long max_bytes;
  int mode;
};

// The entries, oldest first. Nothing when the folder is no queue.
[[nodiscard]] std::optional<std::vector<queue_entry>> queue_entries(const std::string& queue);
// The control file's numbers. Nothing when it cannot be read.
[[nodiscard]] std::optional<queue_limits> queue_read_limits(const std::string& queue);
// An entry's bytes. Nothing when it is not there.
[[nodiscard]] std::optional<std::string> queue_read_entry(const std::string& queue,
                                                          const std::string& name);

// Holds the queue's lock, as a consumer would, while it lives.
class queue_lock {
 public:
  explicit queue_lock(const std::string& queue);
  ~queue_lock();
  queue_lock(const queue_lock&) = delete;
  queue_lock& operator=(const queue_lock&) = delete;
  [[nodiscard]] bool is_held() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

// Removes the named files of the data folder; returns how many are gone.
[[nodiscard]] std::size_t queue_remove(const std::string& queue,
                                       const std::vector<queue_entry>& entries);
