#pragma once
// The barrier round everything that Proton calls: an exception that left a handler would end the
// container, one that left a job would vanish without a word.

#include <exception>

#include "logging/log-helper.h"

template <class Body>
bool kv_barrier(const char* function, Body&& body) noexcept {
  try {
    body();
    return true;
  } catch (const std::exception& error) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "unexpected error: %s", error.what());
  } catch (...) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "unexpected error: %s", "unknown exception");
  }
  return false;
}
