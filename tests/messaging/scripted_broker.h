#pragma once
// A broker that misbehaves as the test says: it withholds credit, refuses or ignores links, closes
// them over a message, keeps outcomes back, and delivers whatever bytes it is given. Plain TCP with
// SASL PLAIN on a free port of the loopback interface, one thread. Queues are lists of byte
// strings; what a consumer has not settled when its link goes is delivered again.

#include <proton/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "messaging/kv_amqp_client.h"

struct pn_event_t;
struct pn_proactor_t;

enum class peer_attach { open, refuse, ignore };

// What becomes of a message that the client has sent.
enum class peer_answer {
  accept,
  reject,
  hold,                     // no outcome at all
  close_link,               // no outcome: the link is closed with the script's condition
  close_link_then_session,  // the same; whatever follows on that link ends its session
  close_connection,         // no outcome: the connection is closed with the script's condition
};

// Constant while a broker runs, save for what set_... changes.
struct peer_script {
  int credit = 100;             // of each link on which the client sends; given back as it is used
  std::uint32_t max_frame = 0;  // that the broker takes; 0: any
  peer_attach attach = peer_attach::open;  // of the links on which the client sends
  bool reject_at_first_frame = false;      // a message of several frames, before it is complete
  std::size_t gather = 0;  // the first messages get no answer before there are so many
  std::string condition = "amqp:not-found";
  std::function<peer_answer(const std::string& to)> answer;  // broker's thread; none: accept
};

class scripted_broker {
 public:
  explicit scripted_broker(peer_script script);
  ~scripted_broker();
  scripted_broker(const scripted_broker&) = delete;
  scripted_broker& operator=(const scripted_broker&) = delete;

  // Settings of a client.
  [[nodiscard]] kv_amqp_config_ptr client_config() const;

  // Any thread.
  void push(const std::string& queue, std::string bytes);
  // From now on links on which the client sends have this credit; those that are open get it now.
  void set_credit(int credit);
  void set_attach(peer_attach attach);

  // What has happened so far.
  [[nodiscard]] int opened_links() const;     // that were opened for the client to send on
  [[nodiscard]] int attempted_links() const;  // the same, refused and ignored ones included
  [[nodiscard]] int connections() const;      // that were opened
  [[nodiscard]] int received(const std::string& to) const;      // messages that came for an address
  [[nodiscard]] int delivered(const std::string& queue) const;  // deliveries to the client
  [[nodiscard]] int settled(const std::string& queue, std::uint64_t outcome) const;
  // The bytes of the last message that came for an address.
  [[nodiscard]] std::string last_bytes(const std::string& to) const;

 private:
  struct queue_state {
    std::deque<std::string> messages;
    int delivered = 0;
    std::map<std::uint64_t, int> settled;
  };

  void run();
  void handle(pn_event_t* event);
  void accept_connection(pn_event_t* event);
  void attach(pn_link_t* link);
  void flow(pn_link_t* link);
  void delivery(pn_delivery_t* delivery);
  void take(pn_delivery_t* delivery);
  void answer(pn_delivery_t* delivery, const std::string& to);
  void answer_gathered();
  [[nodiscard]] peer_answer choose(const std::string& to) const;
  void settle(pn_delivery_t* delivery);
  void wake(pn_connection_t* connection);
  void serve_all();
  void give_credit(pn_link_t* link);
  void return_unsettled(const std::function<bool(pn_delivery_t*)>& is_lost);

  // Constant after start.
  std::shared_ptr<pn_proactor_t> proactor_;
  std::string port_;

  // Broker's thread only.
  std::map<pn_delivery_t*, std::string> unsettled_;               // bytes, by what the client holds
  std::vector<std::pair<pn_delivery_t*, std::string>> gathered_;  // with their addresses
  std::vector<pn_link_t*> incoming_;
  std::vector<pn_link_t*> outgoing_;
  std::map<pn_delivery_t*, std::string> partial_;  // bytes that have come so far
  std::vector<pn_link_t*> condemned_;              // closed; a transfer ends their session
  std::uint64_t next_tag_ = 0;
  bool done_ = false;

  // Shared, under the mutex.
  mutable std::mutex mutex_;
  peer_script script_;
  std::map<std::string, queue_state> queues_;
  std::map<std::string, int> received_;
  std::map<std::string, std::string> last_bytes_;
  std::vector<pn_connection_t*> connections_;
  int opened_links_ = 0;
  int attempted_links_ = 0;
  int opened_connections_ = 0;

  std::thread thread_;
};
