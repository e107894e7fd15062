#define KV_LOG_UNIT "log-helper"
#include "logging/log-helper.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>

#include "common/kv_threads.h"
#include "common/kv_time.h"
#include "common/kvhlp-path-file-operations.h"
#include "common/kvsemaphore.h"
#include "logging/log-helper_internal.h"

const char* kv__progname = "";
constinit std::atomic<std::uint32_t> kv_log_threshold{KV_LOG_LEVEL_OFF};

namespace {

constexpr std::int64_t kLockTimeoutMs = 5000;
constexpr mode_t kSemaphoreMode = 0666;
constexpr mode_t kTraceFileMode = 0666;
constexpr std::size_t kSemaphoreNameSize = 4096;
constexpr const char* kLockTimeoutText =
    "korvane Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n";
// A lock function that logs comes back into the log; deeper than this it is going round.
constexpr int kMaxNesting = 4;
// How long closing waits for threads that still use the lock: one lock time-out and some.
constexpr std::uint64_t kCloseWaitMs = 6000;

// The process-wide state. Written at start-up and shutdown, read by every thread without a lock.
struct log_state {
  std::atomic<void*> udata{nullptr};
  std::atomic<log_lock_fn> lock{nullptr};
  std::atomic<std::uint32_t> level{KV_LOG_LEVEL_OFF};
  std::atomic<int> quiet{0};
  std::atomic<std::uint64_t> maxsize{0};
  std::atomic<const char*> filename{nullptr};
  std::atomic<std::int8_t> screentrace{0};
  // Threads between reading lock and udata and their last use: closing waits for them.
  std::atomic<int> lock_users{0};
};
constinit log_state L;

thread_local int nesting = 0;

bool s_is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

template <class T>
T s_get(const std::atomic<T>& member) {
  return member.load(std::memory_order_relaxed);
}

bool s_has_destination() {
  const char* const filename = s_get(L.filename);
  return s_get(L.screentrace) != 0 || !s_is_empty(filename) ||
         (filename != nullptr && s_get(L.quiet) == 0);
}

// Stores a member and brings the threshold in line with it; one setter at a time, so that the
// threshold always belongs to the last of them.
template <class T>
void s_set(std::atomic<T>& member, T value) {
  static constinit std::mutex mutex;
  const std::lock_guard guard(mutex);
  member.store(value, std::memory_order_relaxed);
  kv_log_threshold.store(s_has_destination() ? s_get(L.level) : KV_LOG_LEVEL_OFF,
                         std::memory_order_relaxed);
}

// Acquires the installed lock for a scope. lock and udata are read as one pair that stays usable
// until the scope ends: closing waits for lock_users, hence the sequential order here and there.
class trace_lock {
 public:
  trace_lock() {
    L.lock_users.fetch_add(1);
    lock_ = L.lock.load();
    udata_ = L.udata.load();
    if (lock_ == KVLogLock && udata_ == nullptr) {
      lock_ = nullptr;  // being closed just now
    }
    failed_ = lock_ != nullptr && lock_(udata_, 1) == -1;
  }
  ~trace_lock() {
    if (lock_ != nullptr && !failed_) {
      lock_(udata_, 0);
    }
    L.lock_users.fetch_sub(1);
  }
  trace_lock(const trace_lock&) = delete;
  trace_lock& operator=(const trace_lock&) = delete;
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  log_lock_fn lock_ = nullptr;
  void* udata_ = nullptr;
  bool failed_ = false;
};

class nesting_level {
 public:
  nesting_level() { ++nesting; }
  ~nesting_level() { --nesting; }
  nesting_level(const nesting_level&) = delete;
  nesting_level& operator=(const nesting_level&) = delete;
};

void s_write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// Opens, appends and closes for every line, so that several processes can append, and a file that
// was moved or removed is created again. One write keeps a line whole even without the lock.
void s_append(const char* filename, std::string_view text) {
  const int descriptor =
      open(filename, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, kTraceFileMode);
  if (descriptor < 0) {
    return;
  }
  s_write_all(descriptor, text);
  close(descriptor);
}

void s_write_screen(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

std::string s_format_message(const char* format, va_list arguments) {
  char text[1024];
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  std::string message;
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof text) {
    message.assign(text, static_cast<std::size_t>(length));
  } else if (length >= 0) {
    message.resize(static_cast<std::size_t>(length));
    std::vsnprintf(message.data(), message.size() + 1, format, again);
  }
  va_end(again);
  return message;
}

void s_write_file(const kv_log_line& line) {
  const char* const filename = s_get(L.filename);
  if (s_is_empty(filename)) {
    return;
  }
  const trace_lock lock;
  if (lock.failed()) {
    s_write_screen(kLockTimeoutText);
    return;
  }
  const std::uint64_t maxsize = s_get(L.maxsize);
  if (maxsize != 0) {
    KVLogCheckLogSwitch(filename, maxsize);
  }
  // The configured level decides on the source, not the line's, on purpose.
  s_append(filename, kv_log_file_line(line, s_get(L.level) == KV_LOG_LEVEL_TRACE));
}

void s_log(std::uint32_t level, const char* function, const char* file, int line,
           const char* format, va_list arguments) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::string timestamp = kv_log_timestamp(now);
  const std::string message = s_format_message(format, arguments);
  const kv_log_line fields{timestamp.c_str(), level, function, file, line, message.c_str()};
  if (s_get(L.quiet) == 0 || s_get(L.screentrace) != 0) {
    s_write_screen(kv_log_screen_line(fields));
  }
  s_write_file(fields);
}

// The handle may be closed only when no thread holds or awaits it any more.
bool s_wait_for_lock_users() {
  const std::uint64_t start = kv_current_time_ms();
  while (L.lock_users.load() != 0) {
    if (kv_timeout_expired(start, kCloseWaitMs)) {
      return false;
    }
    const timespec pause{.tv_sec = 0, .tv_nsec = 1000000};
    nanosleep(&pause, nullptr);
  }
  return true;
}

int s_acquire(sem_t* semaphore) {
  const std::uint64_t start = kv_current_time_ms();
  const int rc = KVsem_timedwait(semaphore, kLockTimeoutMs);
  if (rc == 0) {
    kv_log_owner_acquired(semaphore);
  } else if (errno == ETIMEDOUT && kv_log_owner_timed_out(semaphore, start)) {
    KV_LOG_WARN("Trace semaphore was left taken by a process that ended; released it");
  }
  return rc;
}

int s_release(sem_t* semaphore) {
  return kv_log_owner_released(semaphore) ? KVsem_post(semaphore) : 0;
}

}  // namespace

void log_log(std::uint32_t level, const char* function, const char* file, int line,
             const char* format, ...) {
  if (!log_is_enabled(level) || nesting >= kMaxNesting) {
    return;
  }
  const int saved_errno = errno;  // callers log first and look at errno afterwards
  const nesting_level deeper;
  va_list arguments;
  va_start(arguments, format);
  try {
    s_log(level, function, file, line, format, arguments);
  } catch (const std::exception&) {
    // Out of memory: the line is lost, as it is when the file cannot be opened.
  }
  va_end(arguments);
  errno = saved_errno;
}

void log_set_udata(void* udata) {
  L.udata.store(udata);
}

void* log_get_udata() {
  return L.udata.load();
}

void log_set_lock(log_lock_fn lock) {
  L.lock.store(lock);
}

void log_set_level(std::uint32_t level) {
  s_set(L.level, level);
}

std::uint32_t log_get_level() {
  return s_get(L.level);
}

void log_set_quiet(int quiet) {
  s_set(L.quiet, quiet != 0 ? 1 : 0);
}

void log_set_screentrace(int screentrace) {
  s_set(L.screentrace, static_cast<std::int8_t>(screentrace != 0 ? 1 : 0));
}

void log_set_filename(const char* filename) {
  s_set(L.filename, filename);
}

const char* log_get_filename() {
  return s_get(L.filename);
}

void log_set_maxsize(std::uint64_t maxsize_mb) {
  s_set(L.maxsize, maxsize_mb);
}

std::uint64_t log_get_maxsize() {
  return s_get(L.maxsize);
}

int KVOpenTraceFile(const char* path, std::uint32_t level, std::uint64_t maxsize_mb) {
  if (level == KV_LOG_LEVEL_OFF || s_is_empty(path)) {
    KV_LOG_INFO("No trace configured");
    log_set_lock(nullptr);
    log_set_udata(nullptr);
    log_set_filename(nullptr);
    log_set_level(KV_LOG_LEVEL_OFF);
    return 0;
  }
  char name[kSemaphoreNameSize];
  std::snprintf(name, sizeof name, "kv_log_%s", kvhlp_FlattenPath(path));
  sem_t* const semaphore = KVsem_open(name, O_CREAT, kSemaphoreMode, 0, 1);
  if (semaphore == SEM_FAILED) {
    KV_LOG_ERROR("Failed to open semaphore \"%s\"", name);
    return -1;
  }
  kv_log_owner_open(name, semaphore);
  log_set_udata(semaphore);
  log_set_lock(KVLogLock);
  log_set_filename(path);
  log_set_maxsize(maxsize_mb);
  log_set_level(level);
  log_set_screentrace(0);
  return 0;
}

int KVLogLock(void* semaphore, int action) {
  if (semaphore == nullptr) {
    KV_LOG_ERROR("Invalid semaphore handle");
    return -1;
  }
  switch (action) {
    case 0:
      return s_release(static_cast<sem_t*>(semaphore));
    case 1:
      return s_acquire(static_cast<sem_t*>(semaphore));
    default:
      KV_LOG_ERROR("Invalid action parameter value");
      return -1;
  }
}

void KVCloseTraceFile() {
  void* const semaphore = log_get_udata();
  if (semaphore == nullptr) {
    return;
  }
  // Releasing what could not be acquired would let two processes in at once.
  const bool acquired = KVLogLock(semaphore, 1) == 0;
  log_set_quiet(1);
  log_set_lock(nullptr);
  log_set_udata(nullptr);
  if (acquired) {
    KVLogLock(semaphore, 0);
  }
  if (s_wait_for_lock_users()) {  // else the handle is left open: a thread still uses it
    kv_log_owner_close();
    sem_close(static_cast<sem_t*>(semaphore));
  }
}
