#pragma once
// The process-wide records of the worker: configuration, shared parameter block, update thread
// block, per-thread parameters. Made by main, constant after the command line has been applied
// unless a field says otherwise.

#include <atomic>
#include <cstdint>
#include <mutex>

#include "messaging/kv_amqp_client.h"

struct kv_log_dispatcher;   // event log's dispatcher
struct kv_service_state_t;  // the detection service's process-wide state

inline constexpr const char* KV_SERVICE_NAME = "kv-av-activecontent";
inline constexpr const char* KV_SERVICE_TITLE = "Active content detection";
inline constexpr const char* KV_CONTROL_SERVICE = "kv-av-worker-control";
inline constexpr int KV_PRODUCT_MAJOR = 4;
inline constexpr int KV_PRODUCT_MINOR = 0;
inline constexpr int KV_PRODUCT_PATCH = 3;
inline constexpr int KV_PRODUCT_BUILD = 125;
inline constexpr int KV_SERVICE_MAJOR = 1;
inline constexpr int KV_SERVICE_MINOR = 45;

// Values of the JSON key "Command".
enum kv_command : std::int32_t {
  KV_COMMAND_SERVICE_INITIALIZE = 1,
  KV_COMMAND_PING = 3,
  KV_COMMAND_READY = 4,
  KV_COMMAND_SHUTDOWN = 9,
  KV_COMMAND_FLUSH = 10,
  KV_COMMAND_FLUSH_ALL = 12,
  KV_COMMAND_SCAN = 101,
  KV_COMMAND_SCAN_RECURSIVE = 102,
  KV_COMMAND_REGISTER = 200,
  KV_COMMAND_HIGH_WATER_MARK = 201,
  KV_COMMAND_LOW_WATER_MARK = 202,
  KV_COMMAND_GET_DEFINITION = 203,
  KV_COMMAND_EVENT = 501,
};

// Process-wide termination flag: 0 while running. Set by the signal handler, by a verified shutdown
// request and by the shutdown itself; read by every thread's loop without a lock (relaxed: it
// orders nothing).
inline std::atomic<std::int32_t> killed{0};
[[nodiscard]] inline bool kv_is_killed() noexcept {
  return killed.load(std::memory_order_relaxed) != 0;
}

// Descriptor of ".update.lock" in the worker directory, opened by main; -1 while it is not open.
inline int update_lockfile = -1;

struct kv_update_config_t {
  std::uint8_t update_binary;
  std::uint8_t update_data;
  std::uint8_t update_engine;
  char* update_server;
  std::int32_t check_interval;
  std::int32_t max_backups;
  std::uint8_t no_certificate_check;
};

struct kv_worker_network_config_t {
  char* http_proxy;
};

struct kv_update_thread_args_t;

// All texts are owned and come from the C allocator.
struct kv_worker_config_t {
  char* basedir;
  char* tempdir;
  char* work_directory;
  std::uint8_t primary;
  std::uint8_t amqp_over_http;
  kv_amqp_config* amqp;
  std::int32_t worker_threads;
  std::int32_t control_connection_timeout;
  std::uint8_t autoscale;
  std::int32_t autoscale_monitoring_period;  // seconds
  std::int32_t autoscale_high_water_mark;    // percent
  std::int32_t autoscale_low_water_mark;     // percent
  std::int32_t register_interval;            // seconds
  std::int32_t trace_level;
  char* trace_file;
  std::int64_t trace_file_maxsize;  // decimal megabytes
  std::uint8_t trace_to_screen;
  std::uint8_t use_shm_for_recursion;
  kv_update_config_t* update;
  kv_update_thread_args_t* update_thread;
  kv_worker_network_config_t* network;
  std::uint8_t console_mode;
  char* signal_when_ready;
  char* shutdown_when_ready;
  char* secret;
  char* activation_secret;  // made when an activation starts; guarded by the update block
  kv_log_dispatcher* log_dispatcher;
  char** argv;
};

// What the update thread is to do, and how far an update has come.
enum kv_update_target : std::int32_t { KV_UPDATE_TARGET_RUN = 2, KV_UPDATE_TARGET_END = 6 };
enum kv_update_state : std::int32_t {
  KV_UPDATE_IDLE = 0,
  KV_UPDATE_INSTALLING = 1,
  KV_UPDATE_READY = 2,       // a new version is ready to activate
  KV_UPDATE_ACTIVATING = 3,  // a temporary worker is on its way
  KV_UPDATE_ACTIVATED = 4,   // it has announced itself; the restart can follow
};

// The update thread's block, shared by main, the update thread and the control handler.
struct kv_update_thread_args_t {
  std::uint32_t reserved;                   // 0
  std::atomic<std::int32_t> target_status;  // written by main
  kv_worker_config_t* config;               // borrowed
  std::atomic<std::int32_t> update_state;   // written by update thread, main, control handler
  char* new_version;                        // path of the new version, owned
  std::mutex handover;                      // guards the two texts below and the activation secret
  char* shutdown_target;                    // address of the temporary worker, owned
  char* shutdown_secret;                    // the temporary worker's own secret, owned
};

// The shared parameter block, handed to global init, every worker thread, the control handler,
// update activation and clean-up.
struct kv_worker_thread_args_t {
  kv_worker_config_t* config;
  kv_service_state_t* service;  // made by kv_worker_global_init
};

// Words through which supervisor and worker threads see each other.
enum kv_thread_target : std::uint32_t {
  KV_TARGET_RUN = 2,
  KV_TARGET_HOLD = 4,
  KV_TARGET_RESUME = 5,
  KV_TARGET_TERMINATE = 7,
};
enum kv_thread_status : std::uint32_t {
  KV_THREAD_STARTING = 1,
  KV_THREAD_IDLE = 2,
  KV_THREAD_BUSY = 3,
  KV_THREAD_HELD = 4,
};

// The detection service's state of one worker thread: three words, zero-filled.
struct kv_thread_local_parameters_t {
  std::uint64_t state;  // 2 once the thread has answered a service-initialisation request
  std::uint64_t flag;   // low byte: use shared memory for recursive scans
  std::uint64_t reserved;
};

struct worker_thread_parameters {
  std::uint64_t reserved[2];
  std::atomic<std::uint32_t> target_status;   // written by the supervisor
  std::atomic<std::uint32_t> current_status;  // written by its own thread
  kv_worker_thread_args_t* shared;
  kv_thread_local_parameters_t* thread_local_parameters;
};
