#pragma once
// What the suite answers besides carrying messages: the control service "kv-av-worker-control", the
// sinks "kv-av-log" and "kv-av-events-dispatch", and its own "kv-av-suite" for the commands of this
// program. Each takes a JSON text and returns one. One thread: the broker's.

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "definitions_file.h"

namespace kv_suite {

inline constexpr const char* kControlQueue = "kv-av-worker-control";
inline constexpr const char* kLogQueue = "kv-av-log";
inline constexpr const char* kEventQueue = "kv-av-events-dispatch";
inline constexpr const char* kSuiteQueue = "kv-av-suite";

class suite_services {
 public:
  using clock = std::function<std::chrono::steady_clock::time_point()>;
  // print takes one JSON line.
  suite_services(definitions_file& definitions, std::function<void(std::string)> print,
                 clock now = std::chrono::steady_clock::now);

  [[nodiscard]] std::string control(const std::string& request);
  [[nodiscard]] std::string log(const std::string& request);
  [[nodiscard]] std::string event(const std::string& request);
  [[nodiscard]] std::string suite(const std::string& request);

 private:
  struct worker {
    std::string service;
    int primary = 0;
    int registrations = 0;
    std::chrono::steady_clock::time_point seen;
  };

  [[nodiscard]] std::string sink(const char* name, const std::string& request);
  void show(const char* name, json_object* message);
  [[nodiscard]] std::string register_worker(json_object* request);
  [[nodiscard]] std::string definition(json_object* request);
  [[nodiscard]] std::string list_workers();
  void forget_silent_workers();

  definitions_file& definitions_;
  std::function<void(std::string)> print_;
  clock now_;
  std::map<std::string, worker> workers_;  // by name
};

}  // namespace kv_suite
