// The broker of the end-to-end benchmark: as little as there can be between two programs, so that
// what is measured is their cost and not a broker's. One thread, queues in memory, any user, no
// redelivery. Not for any other use.
// Usage: kv_bench_broker PORT [CERTIFICATE KEY]
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/sasl_plugin.h>
#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/listen_handler.hpp>
#include <proton/listener.hpp>
#include <proton/message.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sender.hpp>
#include <proton/sender_options.hpp>
#include <proton/source.hpp>
#include <proton/source_options.hpp>
#include <proton/ssl.hpp>
#include <proton/target.hpp>
#include <proton/target_options.hpp>
#include <proton/tracker.hpp>
#include <proton/transport.hpp>
#include <proton/work_queue.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

// ---- SASL PLAIN that lets everybody in ----

void s_free(pn_transport_t*) {}
const char* s_list(pn_transport_t*) {
  return "PLAIN";
}
bool s_init_server(pn_transport_t* transport) {
  pnx_sasl_set_desired_state(transport, SASL_POSTED_MECHANISMS);
  return true;
}
bool s_init_client(pn_transport_t*) {
  return false;
}
void s_prepare(pn_transport_t*) {}
void s_init(pn_transport_t* transport, const char*, const pn_bytes_t*) {
  pnx_sasl_set_succeeded(transport, "bench", "bench");
  pnx_sasl_set_desired_state(transport, SASL_POSTED_OUTCOME);
}
void s_response(pn_transport_t*, const pn_bytes_t*) {}
bool s_mechanisms(pn_transport_t*, const char*) {
  return false;
}
bool s_can_encrypt(pn_transport_t*) {
  return false;
}
ssize_t s_max_encrypt(pn_transport_t*) {
  return 0;
}
ssize_t s_code(pn_transport_t*, pn_bytes_t, pn_bytes_t*) {
  return 0;
}
const pnx_sasl_implementation kSasl{
    s_free,       s_list,     s_init_server, s_init_client, s_prepare,     s_init, s_response,
    s_mechanisms, s_response, s_response,    s_can_encrypt, s_max_encrypt, s_code, s_code};

// ---- queues ----

using encoded = std::shared_ptr<std::vector<char>>;

struct s_link : proton::sender {
  explicit s_link(const proton::sender& base) : proton::sender(base) {}
  [[nodiscard]] pn_link_t* get() const { return pn_object(); }
};

class peer;

struct consumer {
  peer* owner = nullptr;
  proton::sender sender;
  int credit = 0;
  std::deque<encoded> assigned;  // until the owner's next turn
};

struct queue {
  std::deque<encoded> messages;
  std::vector<consumer*> consumers;
  std::size_t next = 0;
};

std::map<std::string, queue> queues;

void dispatch(queue& from);

class peer : public proton::messaging_handler {
 public:
  void on_connection_open(proton::connection& c) override {
    work_ = &c.work_queue();
    c.open();
  }
  void on_receiver_open(proton::receiver& r) override {
    r.open(proton::receiver_options().credit_window(500));
  }
  void on_sender_open(proton::sender& s) override {
    const std::string address = s.source().address();
    s.open(proton::sender_options().source(proton::source_options().address(address)));
    auto own = std::make_unique<consumer>();
    own->owner = this;
    own->sender = s;
    queues[address].consumers.push_back(own.get());
    consumers_.emplace(address, std::move(own));
  }
  void on_sendable(proton::sender& s) override {
    const std::string address = s.source().address();
    const auto own = consumers_.find(address);
    if (own != consumers_.end()) {
      own->second->credit = s.credit() - static_cast<int>(own->second->assigned.size());
      dispatch(queues[address]);
    }
  }
  void on_sender_drain_start(proton::sender& s) override { s.return_credit(); }
  void on_message(proton::delivery& d, proton::message& m) override {
    const std::string target = d.receiver().target().address();
    auto bytes = std::make_shared<std::vector<char>>();
    bytes->reserve(kRoom);
    m.encode(*bytes);
    queue& to = queues[target.empty() ? m.to() : target];
    to.messages.push_back(std::move(bytes));
    dispatch(to);
  }
  void on_transport_close(proton::transport&) override {
    for (auto& [address, own] : consumers_) {
      std::erase(queues[address].consumers, own.get());
    }
    consumers_.clear();
    work_ = nullptr;
  }
  void on_error(const proton::error_condition&) override {}

  // Sends from this connection's own turn; a send from another's would wait for the next event.
  void wake() {
    if (woken_ || work_ == nullptr) {
      return;
    }
    woken_ = work_->add([this] { flush(); });
  }

 private:
  static constexpr std::size_t kRoom = 2048;

  void flush() {
    woken_ = false;
    for (auto& [address, own] : consumers_) {
      pn_link_t* link = s_link(own->sender).get();
      for (const encoded& bytes : own->assigned) {
        ++tag_;
        pn_delivery(link, pn_dtag(reinterpret_cast<const char*>(&tag_), sizeof tag_));
        pn_link_send(link, bytes->data(), bytes->size());
        pn_link_advance(link);
      }
      own->assigned.clear();
    }
  }

  proton::work_queue* work_ = nullptr;
  bool woken_ = false;
  std::uint64_t tag_ = 0;
  std::map<std::string, std::unique_ptr<consumer>> consumers_;
};

void dispatch(queue& from) {
  std::size_t idle = 0;
  while (!from.messages.empty() && idle < from.consumers.size()) {
    consumer& taker = *from.consumers[from.next++ % from.consumers.size()];
    if (taker.credit <= 0) {
      ++idle;
      continue;
    }
    idle = 0;
    --taker.credit;
    taker.assigned.push_back(std::move(from.messages.front()));
    from.messages.pop_front();
    taker.owner->wake();
  }
}

class listener : public proton::listen_handler {
 public:
  explicit listener(proton::connection_options options) : options_(std::move(options)) {}
  proton::connection_options on_accept(proton::listener&) override {
    peers_.push_back(std::make_unique<peer>());
    proton::connection_options options = options_;
    return options.handler(*peers_.back());
  }
  void on_open(proton::listener&) override {
    std::puts("ready");
    std::fflush(stdout);
  }
  void on_error(proton::listener&, const std::string& text) override {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::exit(1);
  }

 private:
  proton::connection_options options_;
  std::vector<std::unique_ptr<peer>> peers_;  // kept to the end: there are few
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: %s PORT [CERTIFICATE KEY]\n", argv[0]);
    return 2;
  }
  pnx_sasl_set_default_implementation(&kSasl);
  proton::connection_options options;
  options.sasl_allowed_mechs("PLAIN");
  if (argc == 4) {
    options.ssl_server_options(
        proton::ssl_server_options(proton::ssl_certificate(argv[2], argv[3])));
  } else {
    options.sasl_allow_insecure_mechs(true);
  }
  listener handler(options);
  proton::container container;
  container.listen(std::string("127.0.0.1:") + argv[1], handler);
  container.run();
}
