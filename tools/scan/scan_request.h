#pragma once
// A complete scan request: every key that a client of the suite sends, so that embedded content can
// travel on to other services with the same settings. Pure; any thread.

#include <cstdint>
#include <string>

#include "common/kv_guard.h"

namespace kv_scan {

// One object as it is described to the worker.
struct object_description {
  std::string name;
  std::uint64_t size = 0;
  std::string mime;  // as sent
  std::string type;
  std::string extension;  // with its dot
};

// What all requests of a run share.
struct request_settings {
  std::string realm = "default";
  std::string sid = "default";
  // Services that embedded content goes to; the default names one that is passed over, so that
  // embedded content counts as clean.
  std::string services = "kv-av-cloudscan";
  std::string hostname;         // of this machine
  std::int32_t timeout_ms = 0;  // 0: no limit
};

[[nodiscard]] kv_json_ptr make_request(const object_description& object,
                                       const request_settings& settings,
                                       const std::string& event_id);

// Random UUID text.
[[nodiscard]] std::string make_event_id();
[[nodiscard]] std::string own_hostname();

}  // namespace kv_scan
