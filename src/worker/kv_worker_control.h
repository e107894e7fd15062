#pragma once
// The handler of control jobs, which arrive at the worker's own address: ping, flush of
// definitions, and the two messages by which an old and a new instance hand over, each guarded by a
// secret. Runs on the control thread; what it hands to main lies in the update thread block.

#include <cstdint>

#include "messaging/kv_request_reply_types.h"

// shared_parameters is the process's kv_worker_thread_args_t. 0 handled, -1 the job could not be
// read.
std::int32_t kv_worker_control_request_handler(void* shared_parameters,
                                               kv_const_request_reply_t* pair);
