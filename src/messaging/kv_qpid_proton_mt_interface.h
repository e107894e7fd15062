#pragma once
// Default transport: one Proton container in one thread owns the one connection to the broker;
// every other thread acts through its work queue, mutexes and conditions, and never touches a
// Proton object. Offers the client side of a request and the service side of a queue.

#include <atomic>
#include <cstdint>

#include "messaging/kv_amqp_client.h"

// Handles one request of a service queue: 0 handled, non-zero failed. The request's texts and data
// are borrowed for the call; the reply's members are owned by the pair and sent by the transport.
using kv_service_request_callback = std::int32_t (*)(void* argument,
                                                     kv_const_request_reply_t* pair);

int kv_qpid_init(kv_amqp_config* config);
// Waits until the sending link has been open once; see kv_amqp_wait_connected.
bool kv_qpid_wait_connected(kv_amqp_config* config, std::uint32_t limit_ms);
// Stops the receivers of the service addresses; see kv_amqp_stop_services.
void kv_qpid_stop_services(kv_amqp_config* config, std::uint32_t limit_ms);
void kv_qpid_deinit(kv_amqp_config* config);

// Sends a request and waits timeout_ms + extra_time_ms for its reply. 0 with the reply filled, else
// non-zero with the reason in error_text (may be null, else KV_ERROR_TEXT_SIZE bytes).
[[nodiscard]] int kv_qpid_send_receive_mt(kv_amqp_config* config, const char* service,
                                          std::int32_t timeout_ms, std::int32_t extra_time_ms,
                                          kv_const_request_reply_t* pair, char* error_text);

// Starts threads that take requests from the service's queue until *stop is non-zero. The callback,
// its argument and the stop flag outlive the transport. 0, or non-zero when threads could not be
// made.
[[nodiscard]] int kv_qpid_start_service_handler_threads(kv_amqp_config* config, const char* service,
                                                        kv_service_request_callback callback,
                                                        void* argument,
                                                        const std::atomic<std::int32_t>* stop,
                                                        int threads);
