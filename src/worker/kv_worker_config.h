#pragma once
// New/free pairs of the process-wide records. Main makes them zero-filled before anything else and
// frees them as the last thing it does; nobody else owns one.

#include "common/kv_guard.h"
#include "worker/kv_worker.h"

// Each returns a zero-filled record, or null when out of memory.
[[nodiscard]] kv_worker_thread_args_t* kv_worker_thread_args_new();
[[nodiscard]] kv_worker_config_t* kv_worker_config_new();  // with the defaults of every option
[[nodiscard]] kv_update_config_t* kv_update_config_new();
[[nodiscard]] kv_worker_network_config_t* kv_worker_network_config_new();
[[nodiscard]] kv_update_thread_args_t* kv_update_thread_args_new();  // target status run, idle

// Frees the record and its texts and clears the caller's pointer.
void kv_update_config_free(kv_update_config_t** config);
void kv_worker_network_config_free(kv_worker_network_config_t** config);
void kv_update_thread_args_free(kv_update_thread_args_t** args);
// Frees what the configuration points to as well, save the log dispatcher and the argument vector.
void kv_worker_config_free(kv_worker_config_t** config);
// Frees the block only: its configuration and the service's state stay.
void kv_worker_thread_args_free(kv_worker_thread_args_t** args);

using kv_worker_config_ptr =
    std::unique_ptr<kv_worker_config_t, kv_free_address<kv_worker_config_free>>;
using kv_worker_thread_args_ptr =
    std::unique_ptr<kv_worker_thread_args_t, kv_free_address<kv_worker_thread_args_free>>;

// Replaces an owned text by a copy of value (null clears it). False when the copy fails; the old
// text then stays.
[[nodiscard]] bool kv_worker_store_text(char*& text, const char* value);
