#include "common/kvsemaphore.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "logging/log-helper.h"

namespace {

constexpr std::size_t kNameBufferSize = 4096;

bool s_is_handle(const sem_t* semaphore) {
  return semaphore != nullptr && semaphore != SEM_FAILED;
}

int s_try_once(sem_t* semaphore) {
  int rc = 0;
  do {
    rc = sem_trywait(semaphore);
  } while (rc == -1 && errno == EINTR);
  return rc;
}

}  // namespace

sem_t* KVsem_open(const char* name, int flags, mode_t mode, [[maybe_unused]] int unused,
                  unsigned int value) {
  char own_name[kNameBufferSize];
  const int length = name == nullptr ? -1 : std::snprintf(own_name, sizeof own_name, "%s", name);
  sem_t* semaphore = SEM_FAILED;
  if (length < 0) {
    errno = EINVAL;
  } else if (static_cast<std::size_t>(length) >= sizeof own_name) {
    KV_LOG_FATAL("Semaphore name of %d characters is too long", length);
    errno = ENAMETOOLONG;
  } else {
    semaphore = sem_open(own_name, flags, mode, value);
  }
  KV_LOG_TRACE("Exiting, rc=%p", static_cast<void*>(semaphore));
  return semaphore;
}

int KVsem_timedwait(sem_t* semaphore, std::int64_t limit_ms) {
  if (!s_is_handle(semaphore)) {
    errno = EINVAL;
    return -1;
  }
  if (limit_ms < 1) {
    return s_try_once(semaphore);
  }
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_nsec += limit_ms % 1000000;
  deadline.tv_sec += limit_ms / 1000;
  int rc = 0;
  do {
    rc = sem_timedwait(semaphore, &deadline);
  } while (rc == -1 && errno == EINTR);
  return rc;
}

int KVsem_post(sem_t* semaphore) {
  if (!s_is_handle(semaphore)) {
    errno = EINVAL;
    return -1;
  }
  return sem_post(semaphore);
}

int KVsem_unlink(const char* name) {
  KV_LOG_DEBUG("Entering");
  const int rc = sem_unlink(name == nullptr ? "" : name);
  KV_LOG_DEBUG("rc=%d", rc);
  KV_LOG_DEBUG("Exiting");
  return rc;
}
