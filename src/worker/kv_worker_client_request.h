#pragma once
// The handler that every worker thread runs for each message on the service address: parses the
// request once, hands it to the detection service, and sees to it that every request has a reply.
// Runs on the worker threads, each with its own parameters.

#include <cstdint>

#include "messaging/kv_request_reply_types.h"

// thread_parameters is the thread's worker_thread_parameters. The result goes into the reply when
// nothing else did; 0 handled, -1 the request could not be read.
std::int32_t kv_worker_client_request_handler(void* thread_parameters,
                                              kv_const_request_reply_t* pair);
