#pragma once
// The pool of worker threads: each is one receiver on the service address with parameters of its
// own. Main owns the list and alone changes it; a thread writes its current status and reads its
// target status. The parameters outlive the list: the transport hands them to the request handler
// until kv_amqp_deinit has returned.

#include <czmq.h>

#include <memory>
#include <vector>

#include "worker/kv_worker.h"

[[nodiscard]] worker_thread_parameters* kv_worker_thread_parameters_new();
void kv_worker_thread_parameters_free(worker_thread_parameters** parameters);
using kv_worker_thread_parameters_ptr =
    std::unique_ptr<worker_thread_parameters, kv_free_address<kv_worker_thread_parameters_free>>;

// Creates one worker thread and appends its parameters to the list. 0 or -1.
[[nodiscard]] int kv_worker_create_thread(zlist_t* list, kv_worker_thread_args_t* shared);
void kv_worker_set_all_threads_target_status(zlist_t* list, std::uint32_t status);
// Target status terminate for all, then destroys the list (null is allowed) and clears the caller's
// pointer. The threads' parameters stay.
void kv_worker_terminate_all_threads(zlist_t** list);
// Asks all threads to hold and waits for them. 0, or -1 once the seconds have passed.
int kv_worker_hold_all_threads(zlist_t* list, std::int32_t timeout_s);
int kv_worker_resume_all_threads(zlist_t* list);

// The parameters of every thread in the list, now owned by the caller.
[[nodiscard]] std::vector<kv_worker_thread_parameters_ptr> kv_worker_take_parameters(zlist_t* list);
