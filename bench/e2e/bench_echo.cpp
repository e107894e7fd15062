// Services that answer in Proton's handler, on one thread. Usage: kv_bench_echo PORT QUEUE MODE
// [CA]
//   raw      does not look at the body: the bound that the transport is measured against
//   json     takes the body apart, parses the request and builds and prints the reply of a clean
//            scan with json-c: the bound that the worker is measured against
//   control  the least control service that a worker is content with: "yes" to whatever it asks, no
//            active-content switches; prints a line for each request
#include <proton/connection.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>

#include <cstdio>
#include <map>

#include "../bare_reply.h"
#include "bench_peer.h"
#include "messaging/kv_qpid_body.h"

namespace {

using answer_function = std::string (*)(const proton::message& request);

std::string s_raw(const proton::message&) {
  return kBenchReply;
}

std::string s_json(const proton::message& request) {
  kv_body body;
  kv_json_ptr parsed;
  if (kv_body_decode(request.body(), body) != kv_body_error::none ||
      !kv_json_parse(body.json, parsed, __func__, "bench", __LINE__)) {
    return R"({"ReturnCode": -1000})";
  }
  return bare_scan_reply().get();
}

std::string s_control(const proton::message& request) {
  kv_body body;
  static_cast<void>(kv_body_decode(request.body(), body));
  std::printf("%s\n", body.json.c_str());
  std::fflush(stdout);
  return R"({"ReturnCode": 0, "Active-content-definition": []})";
}

const std::map<std::string, answer_function> kModes{
    {"raw", s_raw}, {"json", s_json}, {"control", s_control}};

class echo_service : public proton::messaging_handler {
 public:
  echo_service(std::string port, std::string queue, answer_function answer, std::string ca_file)
      : port_(std::move(port)),
        queue_(std::move(queue)),
        answer_(answer),
        ca_file_(std::move(ca_file)) {}

 private:
  void on_container_start(proton::container& container) override {
    container.connect(bench_url(port_), bench_options(ca_file_));
  }
  void on_connection_open(proton::connection& connection) override {
    connection.open_sender("");
    connection.open_receiver(queue_, proton::receiver_options().credit_window(50));
  }
  void on_receiver_open(proton::receiver&) override {
    std::puts("ready");
    std::fflush(stdout);
  }
  void on_sender_open(proton::sender& sender) override { link_ = bench_link(sender); }
  void on_message(proton::delivery&, proton::message& request) override {
    proton::message reply;
    reply.to(request.reply_to());
    reply.correlation_id(request.id());
    link_.send(kv_encode_message(reply, answer_(request), {}));
  }

  std::string port_;
  std::string queue_;
  answer_function answer_;
  std::string ca_file_;
  bench_link link_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || !kModes.contains(argv[3])) {
    std::fprintf(stderr, "usage: %s PORT QUEUE raw|json|control [CA]\n", argv[0]);
    return 2;
  }
  echo_service service(argv[1], argv[2], kModes.at(argv[3]), argc > 4 ? argv[4] : "");
  proton::container(service).run();
}
