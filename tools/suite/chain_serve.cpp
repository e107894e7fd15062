#include "chain_serve.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <list>
#include <stdexcept>
#include <thread>

#include "chain_service.h"
#include "common/broker_client.h"
#include "line_printer.h"

namespace kv_suite {
namespace {

constexpr std::chrono::milliseconds kSlice{20};

// A service with what its threads share.
struct running_service {
  chain_service service;
  line_printer& printer;
  const std::atomic<std::int32_t>& stop;
};

void s_wait(const running_service& running) {
  const auto end = std::chrono::steady_clock::now() + running.service.delay;
  while (running.stop.load() == 0) {
    const auto left = end - std::chrono::steady_clock::now();
    if (left <= left.zero())
      return;
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kSlice));
  }
}

std::int32_t s_handle(void* argument, kv_const_request_reply_t* pair) {
  const auto& running = *static_cast<const running_service*>(argument);
  const kv_const_message_t& message = *pair->request;
  const chain_request request{
      message.json == nullptr ? "" : message.json,
      {static_cast<const char*>(message.data), message.data == nullptr ? 0 : message.data_size}};
  running.printer.print(show_chain_request(running.service, request));
  s_wait(running);
  const auto answer = answer_chain_request(running.service, request);
  pair->reply->json = answer ? strdup(answer->c_str()) : nullptr;
  return 0;
}

sigset_t s_block_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  return signals;
}

void s_serve(const serve_options& options, const sigset_t& end_signals) {
  std::atomic<std::int32_t> stop{0};
  line_printer printer(STDOUT_FILENO);
  std::list<running_service> services;
  for (const std::string& text : options.services) {
    services.push_back({parse_chain_service(text), printer, stop});
  }
  kv_tools::show_log(options.verbosity);
  kv_tools::broker_client client(
      {.url = {}, .user = {}, .password_file = {}, .certificate = {}, .suite_dir = options.dir});
  for (running_service& running : services) {
    client.serve(running.service.name, s_handle, &running, stop, running.service.threads);
  }
  int signal = 0;
  sigwait(&end_signals, &signal);
  stop = 1;
  client.close();  // before what its threads use
}

// Between fork and exec: nothing that allocates.
[[noreturn]] void s_become(char* const* arguments, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    _exit(2);
  execv("/proc/self/exe", arguments);
  _exit(2);
}

}  // namespace

int serve_chain(const serve_options& options) {
  const sigset_t end_signals = s_block_end_signals();
  try {
    s_serve(options, end_signals);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "kv-av-suite: " << failure.what() << "\n";
    return 2;
  }
}

chain_process::chain_process(const std::string& dir, const std::vector<std::string>& services) {
  if (services.empty())
    return;
  std::vector<std::string> texts{"kv-av-suite", "serve", "--dir", dir};
  for (const std::string& service : services) {
    static_cast<void>(parse_chain_service(service));  // a mistake is told before anything starts
    texts.push_back("--service");
    texts.push_back(service);
  }
  std::vector<char*> arguments;
  for (std::string& text : texts) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0)
    s_become(arguments.data(), parent);
  if (pid_ < 0)
    throw std::runtime_error(std::string("cannot start the services: ") + std::strerror(errno));
}

chain_process::~chain_process() {
  if (pid_ <= 0)
    return;
  kill(pid_, SIGKILL);  // it holds nothing that outlives it, and may be slow to answer
  waitpid(pid_, nullptr, 0);
}

}  // namespace kv_suite
