#pragma once
// Who judges an object: a worker behind a broker, or the detection library in this process. Any
// number of threads may scan at once.

#include <functional>
#include <span>
#include <string>

#include "common/broker_client.h"
#include "scan_request.h"
#include "scan_verdict.h"
#include "worker/kv_worker_scan_types.h"

namespace kv_scan {

using scan_function =
    std::function<scan_verdict(const object_description& object, std::span<const char> data)>;

inline constexpr const char* kService = "kv-av-activecontent";

// Asks the service over the client, which outlives the function. A request waits a little longer
// than its scan may take.
[[nodiscard]] scan_function scan_by_broker(const kv_tools::broker_client& client,
                                           request_settings settings);

// Judges in this process. Embedded content counts as clean.
[[nodiscard]] scan_function scan_here(ActiveContent_t switches, request_settings settings);

// Switches from "NAME,NAME" or "all"; throws std::runtime_error naming what it does not know.
[[nodiscard]] ActiveContent_t switches_from_names(const std::string& names, char separator = ',');
// Switches from a JSON file: {"NAME": 1, ...}; throws std::runtime_error.
[[nodiscard]] ActiveContent_t switches_from_file(const std::string& path);

}  // namespace kv_scan
