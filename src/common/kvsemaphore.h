#pragma once
// Named POSIX semaphores with a wait whose limit is given in milliseconds. Any thread and any
// process that opened the name.

#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>

// Opens or, with O_CREAT, creates a named semaphore. Returns the handle, or SEM_FAILED with errno.
// unused is there for callers of the five-argument form only. A name of more than 4095 characters
// is refused (ENAMETOOLONG).
[[nodiscard]] sem_t* KVsem_open(const char* name, int flags, mode_t mode, int unused,
                                unsigned int value);

// 0 when taken, else -1 with errno. A limit below 1 is one attempt. Otherwise limit / 1000 whole
// seconds are waited, and limit modulo 1000000 counts as nanoseconds without a carry: a limit below
// 1000 waits less than a microsecond, and a sum of nanoseconds that reaches one second fails at
// once with EINVAL.
[[nodiscard]] int KVsem_timedwait(sem_t* semaphore, std::int64_t limit_ms);

int KVsem_post(sem_t* semaphore);
int KVsem_unlink(const char* name);
