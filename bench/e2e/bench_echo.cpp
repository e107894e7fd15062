// The raw echo service: answers in Proton's handler without looking at the body. The bound that the
// transport is measured against. Usage: kv_bench_echo PORT QUEUE [CA]
#include <proton/connection.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>

#include <cstdio>

#include "bench_peer.h"

namespace {

class echo_service : public proton::messaging_handler {
 public:
  echo_service(std::string port, std::string queue, std::string ca_file)
      : port_(std::move(port)), queue_(std::move(queue)), ca_file_(std::move(ca_file)) {}

 private:
  void on_container_start(proton::container& container) override {
    container.connect(bench_url(port_), bench_options(ca_file_));
  }
  void on_connection_open(proton::connection& connection) override {
    connection.open_sender("");
    connection.open_receiver(queue_, proton::receiver_options().credit_window(50));
  }
  void on_sender_open(proton::sender& sender) override { link_ = bench_link(sender); }
  void on_message(proton::delivery&, proton::message& request) override {
    proton::message reply(kBenchReply);
    reply.to(request.reply_to());
    reply.correlation_id(request.id());
    link_.send(reply.encode());
  }

  std::string port_;
  std::string queue_;
  std::string ca_file_;
  bench_link link_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s PORT QUEUE [CA]\n", argv[0]);
    return 2;
  }
  echo_service service(argv[1], argv[2], argc > 3 ? argv[3] : "");
  proton::container(service).run();
}
