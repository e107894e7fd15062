#pragma once
// A kv-av-suite of one's own: started on a free port in a temporary folder, ended with the object.
// For test programs that were built with KV_SUITE_PROGRAM defined as the program's path.

#include <sys/types.h>

#include <string>
#include <vector>

#include "messaging/kv_amqp_client.h"
#include "support/temp_dir.h"

#ifndef KV_SUITE_PROGRAM
#define KV_SUITE_PROGRAM "kv-av-suite"
#endif

class suite_process {
 public:
  // Further arguments of "kv-av-suite run", for example "--no-control" or "--plain". Throws when
  // the suite does not serve within ten seconds.
  explicit suite_process(std::vector<std::string> arguments = {},
                         std::string program = KV_SUITE_PROGRAM);
  ~suite_process();
  suite_process(const suite_process&) = delete;
  suite_process& operator=(const suite_process&) = delete;

  // Again, on the port of the first start. The suite ends with the thread that started it.
  void start();
  // As an operator ends it; true when it ended by itself with status 0.
  bool stop();
  // As a power cut ends it: nothing in memory survives.
  void kill();
  // The process stands still with its sockets open, as a hung machine does.
  void freeze();
  void thaw();

  [[nodiscard]] const std::string& port() const { return port_; }
  [[nodiscard]] std::string ca_file() const { return dir_.file("ca.pem"); }
  [[nodiscard]] std::string password() const;
  [[nodiscard]] const std::string& dir() const { return dir_.path(); }
  // What it has printed on standard output and standard error so far.
  [[nodiscard]] std::string output() const { return read_whole_file(dir_.file("suite.out")); }
  [[nodiscard]] std::string errors() const { return read_whole_file(dir_.file("suite.err")); }

  // Settings of a client: localhost with TLS, or without it for a suite started with "--plain".
  [[nodiscard]] kv_amqp_config_ptr client_config() const;

 private:
  void spawn();
  void wait_until_serving();
  bool reap(int limit_ms);

  temp_dir dir_;
  std::vector<std::string> arguments_;
  std::string program_;
  std::string port_ = "0";
  pid_t pid_ = -1;
};
