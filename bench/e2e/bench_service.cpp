// The transport with an empty callback: fifty handler threads as in the worker.
// Usage: kv_bench_service PORT QUEUE [CA]
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "bench_peer.h"
#include "logging/log-helper.h"
#include "messaging/kv_qpid_proton_mt_interface.h"

namespace {

constexpr int kThreads = 50;

std::int32_t s_answer(void*, kv_const_request_reply_t* pair) {
  pair->reply->json = strdup(kBenchReply.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s PORT QUEUE [CA]\n", argv[0]);
    return 2;
  }
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  log_set_level(KV_LOG_LEVEL_ERROR);
  const kv_amqp_config_ptr config{kv_amqp_config_new()};
  config->broker_host = strdup("localhost");
  config->broker_port = strdup(argv[1]);
  config->broker_user = strdup("bench");
  config->broker_password = strdup("bench");
  config->cert_path = argc > 3 ? strdup(argv[3]) : nullptr;
  config->plain_tcp = argc > 3 ? 0 : 1;
  std::atomic<std::int32_t> stop{0};
  if (kv_amqp_init(config.get()) != 0 ||
      kv_qpid_start_service_handler_threads(config.get(), argv[2], s_answer, nullptr, &stop,
                                            kThreads) != 0) {
    return 1;
  }
  std::puts("ready");
  std::fflush(stdout);
  int signal_number = 0;
  sigwait(&ending, &signal_number);
  stop = 1;
  kv_amqp_deinit(config.get());
}
