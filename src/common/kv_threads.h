#pragma once
// Thin wrappers over POSIX threads: create, signal, join, and a join that gives up after a time
// limit. Any thread may call them; a thread id belongs to whoever created the thread and is joined
// once.

#include <pthread.h>

#include <cstdint>

using KV_thread_routine = void* (*)(void* argument);

// Starts a joinable thread with default attributes. 0, or -1 when it cannot be started.
[[nodiscard]] int KV_CreateThread(pthread_t* thread, KV_thread_routine routine, void* argument);

// -1 for a null pointer, else what pthread_kill returns.
int KV_KillThread(const pthread_t* thread, int signal_number);

// -1 for a zero id, else what pthread_join returns.
int KV_JoinThread(pthread_t thread);

// 0 when the thread ended within limit_ms, 1 when it did not (it keeps running and stays joinable),
// -1 for a zero id or when the watcher that waits for it cannot be started. Looks every 10 ms.
int KV_JoinThreadTimeout(pthread_t thread, std::uint32_t limit_ms);
