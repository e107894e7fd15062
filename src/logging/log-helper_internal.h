#pragma once
// What the files of the trace log share with each other and with its tests. Nothing here is for
// callers of the log.

#include <semaphore.h>

#include <cstdint>
#include <ctime>
#include <string>

// One line's fields, borrowed from the caller of log_log.
struct kv_log_line {
  const char* timestamp;
  std::uint32_t level;
  const char* function;
  const char* file;
  int line;
  const char* message;
};

// "2024-03-05 14:07:09.123", UTC. Milliseconds are rounded to the nearest, so 999,500,000
// nanoseconds and more print as ".1000". Empty when the time cannot be converted.
[[nodiscard]] std::string kv_log_timestamp(const timespec& time);
// The line for the trace file; with_source appends the source file and line.
[[nodiscard]] std::string kv_log_file_line(const kv_log_line& line, bool with_source);
// The line for standard error: coloured, always with source file and line.
[[nodiscard]] std::string kv_log_screen_line(const kv_log_line& line);

// Packs the trace file into "%s_%s.zip" (local time) beside it and removes it. 0, or -1 when
// nothing was changed: no archive could be made, or one of this second exists already.
[[nodiscard]] int s_switch_logfile(const char* path);
[[nodiscard]] std::string kv_log_archive_name(const char* path, std::time_t when);

// Bookkeeping of who holds the trace semaphore, shared by all processes of one trace file, so that
// a semaphore left taken by a process that died is noticed. See log-helper_owner.cpp.
void kv_log_owner_open(const char* semaphore_name, sem_t* semaphore);
void kv_log_owner_close();
// After the semaphore was taken.
void kv_log_owner_acquired(const sem_t* semaphore);
// Before the semaphore is posted: false when a repair has posted it in this process's place. Always
// true for a semaphore that this process did not take through the log.
[[nodiscard]] bool kv_log_owner_released(const sem_t* semaphore);
// After a wait that began at wait_start_ms ran into its limit. True when the semaphore was
// repaired.
[[nodiscard]] bool kv_log_owner_timed_out(sem_t* semaphore, std::uint64_t wait_start_ms);
