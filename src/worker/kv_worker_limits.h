#pragma once
// Every time, count and size that the process waits for or bounds itself by, each with its reason.

#include <chrono>
#include <cstdint>

// Descriptors that a parent may have left open: everything behind standard error up to here.
inline constexpr int KV_FIRST_INHERITED_FD = 3;
inline constexpr int KV_LAST_INHERITED_FD = 1023;

// The worker directory holds program versions and the update lock: nobody outside the group reads
// it.
inline constexpr unsigned KV_WORKER_DIRECTORY_MODE = 0750;
inline constexpr unsigned KV_LOCK_FILE_MODE = 0640;

// Length of the own secret and of an activation secret.
inline constexpr std::size_t KV_SECRET_LENGTH = 32;

// The supervisor's pulse, and the longest that any wait leaves a signal unnoticed.
inline constexpr std::chrono::milliseconds KV_SUPERVISOR_PULSE{250};
// Pause between two tries of an initialisation that failed.
inline constexpr std::chrono::milliseconds KV_RETRY_PAUSE{1000};
// Pause before the restart into a new version.
inline constexpr std::chrono::milliseconds KV_RESTART_PAUSE{1000};

// Waiting for the control service: series of pings, the pause between two of them.
inline constexpr int KV_CONTROL_PINGS_PER_SERIES = 6;
inline constexpr std::chrono::milliseconds KV_CONTROL_PING_PAUSE{5000};
inline constexpr std::int32_t KV_CONTROL_PING_TRIES = 3;
inline constexpr std::int32_t KV_CONTROL_PING_TIMEOUT_MS = 2000;

// How long the first ping waits for a connection to be sent on.
inline constexpr std::uint32_t KV_FIRST_CONNECTION_MS = 2000;

// Requests to the control service and between two workers.
inline constexpr std::int32_t KV_CONTROL_REQUEST_TIMEOUT_MS = 5000;
inline constexpr std::int32_t KV_NOTICE_TIMEOUT_MS = 3000;
inline constexpr std::uint32_t KV_CONTROL_REQUEST_RETRIES = 3;

// How long a shutdown waits for the answers of requests that are in work: a reply lives 5 s.
inline constexpr std::uint32_t KV_STOP_SERVICES_MS = 5000;
// How long a shutdown waits for the update thread.
inline constexpr std::uint32_t KV_JOIN_UPDATE_MS = 1500;

// How long a shutdown lets the last records go out, and waits for the thread that delivers them.
inline constexpr std::chrono::milliseconds KV_LAST_RECORDS_PAUSE{3000};
inline constexpr std::uint32_t KV_JOIN_DISPATCHER_MS = 5000;

// How often a hold looks at its threads.
inline constexpr std::chrono::milliseconds KV_HOLD_POLL{10};

// Samples of the load per second of the monitoring period that the average keeps.
inline constexpr std::int32_t KV_SAMPLES_PER_PERIOD_SECOND = 2;
// What an entry of the load samples holds until its first sample.
inline constexpr std::int32_t KV_NO_SAMPLE = -1;
