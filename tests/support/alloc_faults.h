#pragma once
// Makes one call of a function that can run out of something fail. Only programs linked with the
// matching --wrap options (tests/faults) see it. One thread.

#include <array>
#include <string_view>

enum class fault_point {
  operator_new,
  operator_new_nothrow,
  duplicate,  // strdup, strndup
  zeroed,     // calloc
  grown,      // realloc
  json_new_object,
  json_new_array,
  json_new_string,
  json_array_add,
  json_object_add,
  json_new_tokener,
  host_name,  // gethostname
  count
};

// While it lives, call number `after` (from 0) of the function fails.
class alloc_fault {
 public:
  alloc_fault(fault_point point, int after);
  ~alloc_fault();
  alloc_fault(const alloc_fault&) = delete;
  alloc_fault& operator=(const alloc_fault&) = delete;
  // True once the call has failed.
  [[nodiscard]] static bool happened();
};
