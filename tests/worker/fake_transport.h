#pragma once
// Stands in for the client facade and the transport: it defines every function of their two
// headers, so that a test program linked with it talks to no broker. Calls are recorded, answers
// come from the test. Not locked: the code under test calls from one thread.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "messaging/kv_qpid_proton_mt_interface.h"

struct fake_request {
  std::string service;
  std::string text;
  std::int32_t timeout_ms;
  std::uint32_t retries;
  bool ends_with_the_process;  // sent under a stop scope
};

struct fake_service {
  std::string name;
  kv_service_request_callback callback;
  void* argument;
  const std::atomic<std::int32_t>* stop;
  int threads;
};

struct fake_transport_t {
  // What the code under test did.
  std::vector<fake_request> requests;
  std::vector<fake_service> services;
  std::vector<std::string> calls;  // names of the calls that start and stop things, in order
  std::uint32_t stop_limit_ms = 0;

  // What it is answered. An empty text is no reply.
  std::function<std::string(const fake_request&)> answer = [](const fake_request&) {
    return std::string("{\"ReturnCode\": 0}");
  };
  std::function<int(const fake_service&)> start = [](const fake_service&) { return 0; };
  std::function<void()> on_stop = [] {};
  int init_rc = 0;
  bool config_can_be_made = true;

  [[nodiscard]] std::vector<std::string> texts() const;
};

// The one transport of the program; reset it in each test's set-up.
fake_transport_t& fake_transport();
void reset_fake_transport();
