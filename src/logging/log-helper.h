#pragma once
// Trace log: one process-wide logger. Every function of the program calls it through the KV_LOG_...
// macros below; a line goes to standard error and, when a trace file is configured, is appended to
// that file. Lines of several processes that share one trace file are serialised by a named
// semaphore. This header includes nothing of the project, since every floor includes it. Any thread
// may log; the setters are meant for start-up and shutdown.

#include <atomic>
#include <cstddef>
#include <cstdint>

// A message is written when its level is at most the configured one. OFF is a threshold only.
enum kv_log_level : std::uint32_t {
  KV_LOG_LEVEL_OFF = 0,
  KV_LOG_LEVEL_FATAL = 1,
  KV_LOG_LEVEL_ERROR = 2,
  KV_LOG_LEVEL_WARN = 3,
  KV_LOG_LEVEL_INFO = 4,
  KV_LOG_LEVEL_DEBUG = 5,
  KV_LOG_LEVEL_TRACE = 6,
};

// Acquires (action 1) or releases (action 0) what udata stands for; -1 means not acquired.
using log_lock_fn = int (*)(void* udata, int action);

void log_log(std::uint32_t level, const char* function, const char* file, int line,
             const char* format, ...) __attribute__((format(printf, 5, 6)));

// The configured level, or 0 while a line would go nowhere. Kept by the setters below.
extern std::atomic<std::uint32_t> kv_log_threshold;

// True when a line of this level would go anywhere: the test that the macros make before any
// argument is formatted. Lock-free.
[[nodiscard]] inline bool log_is_enabled(std::uint32_t level) noexcept {
  return level != KV_LOG_LEVEL_OFF && level <= kv_log_threshold.load(std::memory_order_relaxed);
}

void log_set_udata(void* udata);
[[nodiscard]] void* log_get_udata();
void log_set_lock(log_lock_fn lock);
void log_set_level(std::uint32_t level);
[[nodiscard]] std::uint32_t log_get_level();
void log_set_quiet(int quiet);                // any non-zero value counts as 1
void log_set_screentrace(int screentrace);    // any non-zero value counts as 1
void log_set_filename(const char* filename);  // not copied: the caller keeps it alive
[[nodiscard]] const char* log_get_filename();
void log_set_maxsize(std::uint64_t maxsize_mb);  // decimal megabytes, 0 for no limit
[[nodiscard]] std::uint64_t log_get_maxsize();

// Opens the trace on a file shared with other processes. Returns 0, also when no trace is
// configured (level 0, or no path), or -1 when the semaphore cannot be opened. Clears any screen
// trace.
[[nodiscard]] int KVOpenTraceFile(const char* path, std::uint32_t level, std::uint64_t maxsize_mb);

// Detaches the lock and silences standard error. Lines still go to the file, unlocked.
void KVCloseTraceFile();

// Releases (action 0) or acquires (action 1, waiting at most 5 s) the semaphore of a trace file. 0,
// or -1 when it could not be had.
int KVLogLock(void* semaphore, int action);

// Archives the file when it has reached the limit. 0 for a null path, else -1: callers ignore it.
int KVLogCheckLogSwitch(const char* path, std::uint64_t maxsize_mb);

// The program's name as printed in every line; set once by main.
extern const char* kv__progname;

// Name of a source unit: the file's base name without its extension.
template <std::size_t N>
struct kv_unit_name {
  char text[N]{};
  consteval explicit kv_unit_name(const char (&file)[N]) {
    for (std::size_t i = 0; i < N && file[i] != '.' && file[i] != '\0'; ++i) {
      text[i] = file[i];
    }
  }
};
template <kv_unit_name Name>
inline constexpr const char* kv_unit_name_of = Name.text;

// A unit that is split over several files names itself: #define KV_LOG_UNIT "unit" before its
// includes.
#ifndef KV_LOG_UNIT
#define KV_LOG_UNIT (kv_unit_name_of<kv_unit_name(__FILE_NAME__)>)
#endif

// Logs under another function's name, for texts that the caller of a helper is known by.
#define KV_LOG_AS(level, function, ...)                                 \
  do {                                                                  \
    if (log_is_enabled(level)) {                                        \
      log_log((level), (function), KV_LOG_UNIT, __LINE__, __VA_ARGS__); \
    }                                                                   \
  } while (false)
#define KV_LOG(level, ...) KV_LOG_AS(level, __func__, __VA_ARGS__)
#define KV_LOG_FATAL(...) KV_LOG(KV_LOG_LEVEL_FATAL, __VA_ARGS__)
#define KV_LOG_ERROR(...) KV_LOG(KV_LOG_LEVEL_ERROR, __VA_ARGS__)
#define KV_LOG_WARN(...) KV_LOG(KV_LOG_LEVEL_WARN, __VA_ARGS__)
#define KV_LOG_INFO(...) KV_LOG(KV_LOG_LEVEL_INFO, __VA_ARGS__)
#define KV_LOG_DEBUG(...) KV_LOG(KV_LOG_LEVEL_DEBUG, __VA_ARGS__)
#define KV_LOG_TRACE(...) KV_LOG(KV_LOG_LEVEL_TRACE, __VA_ARGS__)

// Logs "Entering" now and "Exiting, rc=%d" when the scope ends, with the value that rc then holds.
class kv_trace_scope {
 public:
  kv_trace_scope(const char* function, const char* unit, int line, const int& rc)
      : function_(function), unit_(unit), line_(line), rc_(rc) {
    if (log_is_enabled(KV_LOG_LEVEL_TRACE)) {
      log_log(KV_LOG_LEVEL_TRACE, function_, unit_, line_, "Entering");
    }
  }
  kv_trace_scope(const kv_trace_scope&) = delete;
  kv_trace_scope& operator=(const kv_trace_scope&) = delete;
  ~kv_trace_scope() {
    if (log_is_enabled(KV_LOG_LEVEL_TRACE)) {
      log_log(KV_LOG_LEVEL_TRACE, function_, unit_, line_, "Exiting, rc=%d", rc_);
    }
  }

 private:
  const char* function_;
  const char* unit_;
  int line_;
  const int& rc_;
};
#define KV_TRACE_SCOPE(rc) const kv_trace_scope kv_trace_scope_(__func__, KV_LOG_UNIT, __LINE__, rc)
