#pragma once
// Hand-over of scan data between services of one machine in System V shared-memory segments
// (shmget(2), shmop(2)): the sender puts the bytes into a segment and sends only its id. A segment
// is marked for removal as soon as somebody attaches it, so it disappears with its last user,
// whatever becomes of the processes. Any thread. The bytes of a segment may change under the reader
// at any time: every local process that knows the id can write to it.

#include <cstddef>
#include <cstdint>
#include <span>

// Returns the id of a new segment (length 0 makes one of a single byte), or -1. flags are logged
// only.
[[nodiscard]] int kvshm_create(std::uint64_t length, std::int32_t flags);
// Maps a segment and marks it for removal. Null when it cannot be attached.
[[nodiscard]] void* kvshm_attach(int id);
// Unmaps; name tells the log who did. 0 or -1.
int kvshm_detach(int id, const void* address, const char* name);
// Removes a segment that nobody attached. 0 or -1.
int kvshm_delete(int id);

// An attached segment with its true size; detached when it goes out of scope.
class kv_shm_segment {
 public:
  kv_shm_segment() = default;
  kv_shm_segment(kv_shm_segment&& other) noexcept;
  kv_shm_segment& operator=(kv_shm_segment&& other) noexcept;
  ~kv_shm_segment();

  // Attaches; false when the segment is not there or holds fewer than length bytes (then nothing
  // stays attached). name must outlive the object. The first length bytes are mapped in one call.
  [[nodiscard]] bool attach(int id, std::uint64_t length, const char* name);
  void detach();

  // The first length bytes, as asked for at attach.
  [[nodiscard]] std::span<std::uint8_t> bytes() const { return bytes_; }
  [[nodiscard]] bool is_attached() const { return address_ != nullptr; }

 private:
  int id_ = -1;
  void* address_ = nullptr;
  const char* name_ = "";
  std::span<std::uint8_t> bytes_;
};
