#include "support/suite_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

constexpr int kStartLimitMs = 20'000;  // sanitizers on a busy machine
constexpr int kStopLimitMs = 10'000;
constexpr std::chrono::milliseconds kPoll{10};

std::string s_first_line(const std::string& path) {
  const std::string text = read_whole_file(path);
  return text.substr(0, text.find('\n'));
}

int s_open_log(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

}  // namespace

suite_process::suite_process(std::vector<std::string> arguments, std::string program)
    : arguments_(std::move(arguments)), program_(std::move(program)) {
  start();
}

suite_process::~suite_process() {
  if (pid_ < 0) {
    return;
  }
  ::kill(pid_, SIGCONT);
  ::kill(pid_, SIGTERM);
  if (!reap(kStopLimitMs) && pid_ >= 0) {
    ::kill(pid_, SIGKILL);
    reap(kStopLimitMs);
  }
}

void suite_process::start() {
  spawn();
  wait_until_serving();
}

void suite_process::spawn() {
  std::vector<std::string> words{program_,    "run",      "--dir",
                                 dir_.path(), "--listen", "127.0.0.1:" + port_};
  words.insert(words.end(), arguments_.begin(), arguments_.end());
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  unlink(dir_.file("listen").c_str());
  const int out = s_open_log(dir_.file("suite.out"));
  const int err = s_open_log(dir_.file("suite.err"));
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies takes its suite along
    if (getppid() != parent || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) {
      _exit(126);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  close(err);
  if (pid_ < 0) {
    throw std::runtime_error("kv-av-suite cannot be forked");
  }
}

void suite_process::wait_until_serving() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartLimitMs);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string address = s_first_line(dir_.file("listen"));
    const std::size_t colon = address.rfind(':');
    if (colon != std::string::npos) {
      port_ = address.substr(colon + 1);
      return;
    }
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("kv-av-suite ended at its start: " + errors());
    }
    std::this_thread::sleep_for(kPoll);
  }
  throw std::runtime_error("kv-av-suite does not serve: " + errors());
}

// True when the process ended by itself with status 0.
bool suite_process::reap(int limit_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  int status = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    std::this_thread::sleep_for(kPoll);
  }
  return false;
}

bool suite_process::stop() {
  ::kill(pid_, SIGTERM);
  return reap(kStopLimitMs);
}

void suite_process::kill() {
  ::kill(pid_, SIGKILL);
  reap(kStopLimitMs);
}

void suite_process::freeze() {
  ::kill(pid_, SIGSTOP);
}

void suite_process::thaw() {
  ::kill(pid_, SIGCONT);
}

std::string suite_process::password() const {
  return s_first_line(dir_.file("password"));
}

kv_amqp_config_ptr suite_process::client_config() const {
  kv_amqp_config_ptr config{kv_amqp_config_new()};
  const bool plain = std::ranges::find(arguments_, "--plain") != arguments_.end();
  config->broker_host = strdup("localhost");
  config->broker_port = strdup(port_.c_str());
  config->broker_user = strdup("kv-av");
  config->broker_password = strdup(password().c_str());
  config->cert_path = plain ? nullptr : strdup(ca_file().c_str());
  config->plain_tcp = plain ? 1 : 0;
  return config;
}
