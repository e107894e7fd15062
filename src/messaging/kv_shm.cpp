#include "messaging/kv_shm.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "common/KVstrerror.h"
#include "logging/log-helper.h"

namespace {

constexpr int kCreateAttempts = 10;
constexpr int kKeyRange = 65535;
constexpr int kCreateMode = IPC_CREAT | IPC_EXCL | 0666;
constexpr int kLastAttachDelay = 90;  // steps of 10 from 0: ten attempts
constexpr int kAttachDelayStep = 10;
constexpr int kMicrosecondsPerDelay = 100;

// A key of the thread's own neighbourhood, so that threads seldom meet on one.
key_t s_random_key() {
  const auto thread = static_cast<std::uint32_t>(pthread_self());
  return static_cast<key_t>(static_cast<std::uint32_t>(std::rand() % kKeyRange) + thread);
}

// shmat reports failure by the address -1.
void* s_map(int id) {
  void* address = shmat(id, nullptr, 0);
  return reinterpret_cast<std::intptr_t>(address) == -1 ? nullptr : address;
}

// Brings the pages in by one call: taken one by one on first touch they cost three times as much.
void s_populate(void* address, std::uint64_t length) {
#ifdef MADV_POPULATE_READ
  if (length > 0) {
    const int error = errno;
    static_cast<void>(
        madvise(address, length, MADV_POPULATE_READ));  // an older kernel maps on touch
    errno = error;
  }
#else
  static_cast<void>(address);
  static_cast<void>(length);
#endif
}

bool s_segment_size(int id, std::uint64_t& size) {
  shmid_ds status{};
  if (shmctl(id, IPC_STAT, &status) != 0) {
    return false;
  }
  size = status.shm_segsz;
  return true;
}

}  // namespace

int kvshm_create(std::uint64_t length, std::int32_t flags) {
  const std::size_t size = std::max<std::uint64_t>(length, 1);
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    const key_t key = s_random_key();
    KV_LOG_INFO(
        "Attempting to create shared memory segment of length %ld with key 0x%x and flags %d",
        static_cast<long>(length), static_cast<unsigned>(key), flags);
    const int id = shmget(key, size, kCreateMode);
    if (id >= 0) {
      KV_LOG_INFO("Created shared memory segment ID 0x%x (%d)", static_cast<unsigned>(id), id);
      return id;
    }
    KV_LOG_WARN("Failed to create shared memory with key 0x%x because: %s ... retrying",
                static_cast<unsigned>(key), KVstrerror(errno));
  }
  return -1;
}

void* kvshm_attach(int id) {
  for (int delay = 0;; delay += kAttachDelayStep) {
    void* address = s_map(id);
    const int error = errno;
    kvshm_delete(id);  // the segment goes with its last user, whoever that is
    if (address != nullptr) {
      KV_LOG_INFO("Attached shared memory segment ID 0x%x to address %p", static_cast<unsigned>(id),
                  address);
      KV_LOG_DEBUG("Exiting, rc= %p", address);
      return address;
    }
    KV_LOG_ERROR("Failed to attach to shared memory segment ID 0x%x (%d). Reason: %s",
                 static_cast<unsigned>(id), id, KVstrerror(error));
    if (delay == kLastAttachDelay) {
      KV_LOG_DEBUG("Exiting, rc= %p", static_cast<void*>(nullptr));
      return nullptr;
    }
    // The line names the delay in milliseconds although the pause is a tenth of it.
    KV_LOG_DEBUG("Retrying to attach shared memory after %d ms", delay);
    usleep(static_cast<useconds_t>(delay * kMicrosecondsPerDelay));
  }
}

int kvshm_detach(int id, const void* address, const char* name) {
  KV_LOG_DEBUG("detaching shared memory segment ID 0x%x at %p as %s", static_cast<unsigned>(id),
               address, name);
  if (shmdt(address) != 0) {
    KV_LOG_ERROR("Failed to detach shared memory segment: %s", KVstrerror(errno));
    return -1;
  }
  return 0;
}

int kvshm_delete(int id) {
  KV_LOG_INFO("Removing shared memory segment 0x%x (%d)", static_cast<unsigned>(id), id);
  if (shmctl(id, IPC_RMID, nullptr) != 0) {
    KV_LOG_ERROR("Failed to remove shared memory segment: %s", KVstrerror(errno));
    return -1;
  }
  return 0;
}

kv_shm_segment::kv_shm_segment(kv_shm_segment&& other) noexcept
    : id_(std::exchange(other.id_, -1)),
      address_(std::exchange(other.address_, nullptr)),
      name_(other.name_),
      bytes_(std::exchange(other.bytes_, {})) {}

kv_shm_segment& kv_shm_segment::operator=(kv_shm_segment&& other) noexcept {
  if (this != &other) {
    detach();
    id_ = std::exchange(other.id_, -1);
    address_ = std::exchange(other.address_, nullptr);
    name_ = other.name_;
    bytes_ = std::exchange(other.bytes_, {});
  }
  return *this;
}

kv_shm_segment::~kv_shm_segment() {
  detach();
}

bool kv_shm_segment::attach(int id, std::uint64_t length, const char* name) {
  detach();
  address_ = kvshm_attach(id);
  if (address_ == nullptr) {
    return false;
  }
  id_ = id;
  name_ = name;
  std::uint64_t size = 0;
  if (!s_segment_size(id, size) || length > size) {
    KV_LOG_ERROR("Shared memory segment ID 0x%x holds %lu bytes, %lu are asked for",
                 static_cast<unsigned>(id), static_cast<unsigned long>(size),
                 static_cast<unsigned long>(length));
    detach();
    return false;
  }
  s_populate(address_, length);
  bytes_ = {static_cast<std::uint8_t*>(address_), length};
  return true;
}

void kv_shm_segment::detach() {
  if (address_ != nullptr) {
    kvshm_detach(id_, address_, name_);
    address_ = nullptr;
    id_ = -1;
    bytes_ = {};
  }
}
