#pragma once
// The shared state of the Proton transport, held by the configuration: the connection with its
// sender, the receivers by address, and the threads that serve requests. Its life ends with the
// last thread that uses it: a handler that is stuck in a scan must not pull it down, nor hold up
// the end of the process.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "messaging/kv_qpid_connection.h"
#include "messaging/kv_qpid_proton_mt_interface.h"
#include "messaging/kv_thread_group.h"

struct kv_qpid_transport : std::enable_shared_from_this<kv_qpid_transport> {
  explicit kv_qpid_transport(kv_qpid_extra_params params)
      : state(std::move(params)), connection(state, receivers) {}

  kv_qpid_state state;
  kv_qpid_receivers receivers;
  qpid_connection connection;
  std::string reply_queue;  // constant after start

  kv_thread_group container_thread;
  kv_thread_group handler_threads;

  // Requests of this process that are under way; the end waits for them.
  std::mutex calls_mutex;
  std::condition_variable calls_changed;
  int calls = 0;

  std::shared_ptr<kv_qpid_transport> self;  // the configuration's share
};

// kv_qpid_init with limits of one's own.
int kv_qpid_init_with(kv_amqp_config* config, const kv_qpid_options& options);

// The receiver of an address, opened on first use.
[[nodiscard]] qpid_receiver& kv_qpid_get_receiver(kv_qpid_transport& transport,
                                                  const std::string& address);

// Body of a handler thread.
void kv_qpid_handler_thread_mt(kv_qpid_transport& transport, const std::string& service,
                               kv_service_request_callback callback, void* argument,
                               const std::atomic<std::int32_t>& stop);
