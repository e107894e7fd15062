#define KV_LOG_UNIT "kv_log"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "common/KVstrerror.h"
#include "common/kv_threads.h"
#include "logging/kv_log.h"
#include "logging/log-helper.h"

namespace {

constexpr mode_t kRunDirectoryMode = 0750;
constexpr std::int32_t kQueueMode = 1;
constexpr std::int32_t kRequestTimeoutMs = 3000;
constexpr std::uint32_t kRequestRetries = 3;
constexpr int kIdleMs = 250;         // an empty type, or a queue that another process delivers
constexpr int kRetryStepMs = 250;    // added per consecutive failure
constexpr int kRetryLimitMs = 2000;  // where the back-off stops growing
constexpr int kSleepSliceMs = 25;    // how soon a raised stop flag is seen

// In the order in which a pass tries them.
struct s_destination {
  char type;
  const char* service;
};
constexpr std::array<s_destination, 2> kDestinations{
    {{KV_PQUEUE_LOG, KV_LOG_SERVICE}, {KV_PQUEUE_EVENT, KV_EVENT_SERVICE}}};

const char* s_printable(const char* text) {
  return text == nullptr ? "" : text;
}

bool s_is_stopping(const kv_log_dispatcher* dispatcher) {
  return dispatcher->stop.load(std::memory_order_relaxed) != 0;
}

// Sleeps in slices; ends early when the stop flag is raised.
void s_sleep(const kv_log_dispatcher* dispatcher, int milliseconds) {
  while (milliseconds > 0 && !s_is_stopping(dispatcher)) {
    const int slice = std::min(milliseconds, kSleepSliceMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(slice));
    milliseconds -= slice;
  }
}

void s_log_broker(const kv_amqp_config* amqp) {
  constexpr const char* function = "kv_log_dequeue_thread";
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "Dequeing entry to broker %s",
            s_printable(amqp->broker_host));
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "                  port   %s",
            s_printable(amqp->broker_port));
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "                  user   %s",
            s_printable(amqp->broker_user));
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "                  pass   %s",
            s_printable(amqp->broker_password));
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "                  cert   %s",
            s_printable(amqp->cert_path));
}

// What the loop remembers between entries.
struct s_progress {
  int delay = 0;            // back-off of consecutive failures, milliseconds
  std::string undeletable;  // an entry that was dealt with but could not be removed
};

// Removes an entry that was dealt with. One that stays is remembered, so that it is not sent again.
void s_unlink_entry(const kv_log_dispatcher* dispatcher, const kv_pqueue_data_t* entry,
                    s_progress& progress) {
  if (unlink(entry->path) == 0 || errno == ENOENT) {
    progress.undeletable.clear();
    return;
  }
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_dequeue_thread", "Failed to remove %s: %s", entry->path,
            KVstrerror(errno));
  progress.undeletable = entry->path;
  s_sleep(dispatcher, kRetryLimitMs);
}

void s_deliver(kv_log_dispatcher* dispatcher, const s_destination& to,
               const kv_pqueue_data_t* entry, s_progress& progress) {
  constexpr const char* function = "kv_log_dequeue_thread";
  s_log_broker(dispatcher->amqp);
  const kv_amqp_stop_scope stop{&dispatcher->stop};
  const int rc =
      dispatcher->deliver(dispatcher->amqp, to.service, reinterpret_cast<const char*>(entry->data),
                          kRequestTimeoutMs, kRequestRetries, nullptr);
  if (rc == 0) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "Log/Event entry %s SENT to service %s", entry->path,
              to.service);
    progress.delay = 0;
    s_unlink_entry(dispatcher, entry, progress);
    return;
  }
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to send log/event entry %s ", entry->path);
  if (progress.delay < kRetryLimitMs) {
    progress.delay += kRetryStepMs;
  }
  s_sleep(dispatcher, progress.delay);
}

// One entry of one type, or a pause when there is none.
void s_dequeue_one(kv_log_dispatcher* dispatcher, const s_destination& to, s_progress& progress) {
  constexpr const char* function = "kv_log_dequeue_thread";
  const kv_pqueue_data_ptr entry{kv_pqueue_pop(dispatcher->queue, to.type)};
  if (!entry) {
    s_sleep(dispatcher, kIdleMs);
    return;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "De-queued entry id: %s:\n%s", entry->path,
            reinterpret_cast<const char*>(entry->data));
  if (entry->path == progress.undeletable) {
    s_unlink_entry(dispatcher, entry.get(), progress);
    return;
  }
  if (entry->size == 0) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, function, "Empty data, removing it from the queue");
    s_unlink_entry(dispatcher, entry.get(), progress);
    return;
  }
  s_deliver(dispatcher, to, entry.get(), progress);
}

// Waits until this process may deliver. False when the stop flag was raised first.
bool s_acquire_queue(kv_log_dispatcher* dispatcher) {
  while (kv_pqueue_lock(dispatcher->queue) != 0) {
    s_sleep(dispatcher, kIdleMs);
    if (s_is_stopping(dispatcher)) {
      return false;
    }
  }
  return true;
}

void s_run_dequeue_loop(kv_log_dispatcher* dispatcher) {
  s_progress progress;
  while (!s_is_stopping(dispatcher)) {
    if (!s_acquire_queue(dispatcher)) {
      return;
    }
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, "kv_log_dequeue_thread", "Log queue locked");
    while (!s_is_stopping(dispatcher)) {
      for (const s_destination& to : kDestinations) {
        if (s_is_stopping(dispatcher)) {
          break;
        }
        s_dequeue_one(dispatcher, to, progress);
      }
    }
    kv_pqueue_unlock(dispatcher->queue);
  }
}

std::string s_resolve_run_directory(const char* run_directory) {
  if (mkdir(run_directory, kRunDirectoryMode) != 0 && errno != EEXIST) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_create_log_dispatcher", "Failed to create %s: %s",
              run_directory, KVstrerror(errno));
  }
  std::array<char, PATH_MAX> resolved{};
  if (realpath(run_directory, resolved.data()) == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_create_log_dispatcher", "Failed to resolve %s: %s",
              run_directory, KVstrerror(errno));
  }
  return resolved.data();
}

// Half-written entries that a crash left are never delivered, but count against the limits.
void s_warn_of_temp_entries(const kv_pqueue_t* queue) {
  kv_pqueue_stat_t stat{};
  if (kv_pqueue_get_stat(queue, &stat) == 0 && stat.temp_entries > 0) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, "kv_log_create_log_dispatcher",
              "Queue %s holds %ld half-written entries left by a crash", queue->directory,
              static_cast<long>(stat.temp_entries));
  }
}

}  // namespace

kv_log_dispatcher* kv_log_create_log_dispatcher(const char* run_directory, kv_amqp_config* amqp,
                                                kv_log_deliver_fn deliver) {
  std::unique_ptr<kv_log_dispatcher> dispatcher{new (std::nothrow) kv_log_dispatcher{}};
  if (!dispatcher || run_directory == nullptr) {
    return nullptr;
  }
  const std::string directory = s_resolve_run_directory(run_directory);
  kv_pqueue_ptr queue{kv_pqueue_open(directory.c_str(), KV_LOG_QUEUE_NAME, KV_LOG_QUEUE_MAX_ENTRIES,
                                     KV_LOG_QUEUE_MAX_BYTES, O_CREAT, kQueueMode)};
  if (queue) {
    s_warn_of_temp_entries(queue.get());
  } else {
    KV_LOG_ERROR("Failed to allocate persistent queue");
  }
  KV_LOG_DEBUG("Persistent log queue name: %s in directory %s", KV_LOG_QUEUE_NAME,
               directory.c_str());
  dispatcher->amqp = amqp;
  dispatcher->deliver = deliver;
  dispatcher->queue = queue.get();
  if (KV_CreateThread(&dispatcher->thread, kv_log_dequeue_thread, dispatcher.get()) != 0 ||
      dispatcher->thread == 0) {
    KV_LOG_ERROR("Failed to start log dequeue thread");
    return nullptr;
  }
  KV_LOG_INFO("log dequeue thread created");
  static_cast<void>(queue.release());
  return dispatcher.release();
}

void kv_log_free_log_dispatcher(kv_log_dispatcher** dispatcher, std::uint32_t limit_ms) {
  if (dispatcher == nullptr || *dispatcher == nullptr) {
    return;
  }
  kv_log_dispatcher* record = *dispatcher;
  *dispatcher = nullptr;
  record->stop.store(1, std::memory_order_relaxed);
  KV_LOG_TRACE("Signaling log thread to terminate");
  if (record->thread != 0 && KV_JoinThreadTimeout(record->thread, limit_ms) != 0) {
    return;  // still in use by its thread: left to the end of the process
  }
  kv_pqueue_close(record->queue);
  delete record;
}

void* kv_log_dequeue_thread(void* argument) {
  auto* dispatcher = static_cast<kv_log_dispatcher*>(argument);
  KV_LOG_TRACE("log dequeue thread started");
  if (dispatcher == nullptr || dispatcher->queue == nullptr || dispatcher->amqp == nullptr) {
    KV_LOG_ERROR("Invalid parameters");
  } else {
    try {
      s_run_dequeue_loop(dispatcher);
    } catch (const std::exception& error) {
      KV_LOG_ERROR("Log dequeue thread failed: %s", error.what());
    }
  }
  KV_LOG_DEBUG("Log dequeue thread ending");
  return nullptr;
}
