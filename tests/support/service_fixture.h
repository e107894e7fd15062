#pragma once
// A detection service with one worker thread's parameters and a control service that answers from a
// text, for tests of definitions and requests without a broker.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "activecontent/kvactivecontent_service_internal.h"

// What a test's control service was asked.
struct definition_question {
  std::string service;
  std::string request;
  std::int32_t timeout_ms;
  std::uint32_t retries;
};

class service_fixture {
 public:
  service_fixture() {
    config.use_shm_for_recursion = 0;
    shared.config = &config;
    state_.reset(make_state());
    shared.service = state_.get();
    thread.shared = &shared;
    thread.thread_local_parameters = &local;
    state_->fetch_definition = [this](kv_amqp_config*, const char* service, const char* request,
                                      std::int32_t timeout_ms, std::uint32_t retries, char*) {
      const std::lock_guard guard{lock_};
      questions_.push_back({service, request, timeout_ms, retries});
      return answer_.empty() ? nullptr : json_tokener_parse(answer_.c_str());
    };
  }

  // The reply to every question from now on; empty for no reply.
  void answer(const std::string& reply) {
    const std::lock_guard guard{lock_};
    answer_ = reply;
  }
  void answer_definition(const std::string& array) {
    answer(R"({"ReturnCode": 0, "Active-content-definition": )" + array + "}");
  }
  [[nodiscard]] std::vector<definition_question> questions() {
    const std::lock_guard guard{lock_};
    return questions_;
  }
  [[nodiscard]] kv_service_state_t* state() { return state_.get(); }

  kv_worker_config_t config{};
  kv_worker_thread_args_t shared{};
  kv_thread_local_parameters_t local{};
  worker_thread_parameters thread{};

 private:
  kv_service_state_t* make_state() {
    char error[KV_ERROR_TEXT_SIZE]{};
    return kv_worker_global_init(&config, &shared, error) == 0 ? shared.service : nullptr;
  }

  std::unique_ptr<kv_service_state_t> state_;
  std::mutex lock_;
  std::string answer_;
  std::vector<definition_question> questions_;
};
