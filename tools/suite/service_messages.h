#pragma once
// Requests to the services inside the suite, as JSON text in and JSON text out. Wraps a function on
// JSON texts into a handler of whole AMQP messages. Pure; the wrapped function's thread.

#include <functional>
#include <string>

#include "broker.h"

namespace kv_suite {

using json_service = std::function<std::string(const std::string& request)>;

// The request's JSON is element 0 of a list or array, the value under "json" of a map, or the whole
// body, as text or binary. A message without reply address is handled but not answered.
[[nodiscard]] service_handler make_json_service(json_service service);

}  // namespace kv_suite
