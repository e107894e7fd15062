#pragma once
// The one sending link, to the broker's anonymous address: each message names its queue itself.
// Application threads put encoded messages, and the fate of requests that are done with, into an
// outbox; one job on the connection's work queue empties it, together with the credit that the
// receivers owe. A message that answers a request carries the request along: when the broker has
// accepted the answer, the request is accepted. Messages are kept until the broker has given them
// an outcome: when it closes the link alone, they go out again on the next one.

#include <proton/messaging_handler.hpp>
#include <proton/sender.hpp>
#include <proton/tracker.hpp>
#include <proton/work_queue.hpp>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "messaging/kv_qpid_state.h"
#include "messaging/kv_qpid_suspects.h"

class qpid_receiver;

enum class kv_outcome {
  accepted,  // done with
  released,  // as if it had never been here
  modified,  // tried here without success: the delivery count rises
};

// A request whose delivery waits for its outcome. No receiver: there is none.
struct kv_request_ref {
  qpid_receiver* receiver = nullptr;
  std::uint64_t sequence = 0;
  std::uint64_t generation = 0;
};

// One entry of the outbox.
struct kv_outgoing {
  std::vector<char> bytes;                    // the encoded message; empty: settle the request only
  std::string to;                             // where it goes
  std::string identity;                       // of the request that it is or answers
  kv_clock::time_point deadline;              // a message is not sent after it
  kv_request_ref request;                     // what the message answers
  kv_outcome outcome = kv_outcome::accepted;  // of the request, without a message
};

class qpid_sender : public proton::messaging_handler {
 public:
  qpid_sender(kv_qpid_state& state, kv_qpid_link_owner& owner) : state_(state), owner_(owner) {}

  // Any thread.
  // True once the link has been open; it may be closed at present.
  [[nodiscard]] bool was_opened() const;
  // Waits until then at most.
  bool wait_until_opened(kv_clock::time_point deadline);
  // Waits for the link and for credit, until the message's deadline. Throws std::runtime_error when
  // the transport ends or the deadline passes. A message whose request belongs to a lost connection
  // is dropped.
  void send(kv_outgoing&& message);
  // Gives a request its outcome without a message.
  void settle(kv_request_ref request, kv_outcome outcome);
  // Has the container thread look after receivers to open or close and credit to give.
  void post();
  // Runs a job on the container thread. False without a connection.
  bool post_job(std::function<void()> job);
  // Ends every wait in send. Waits for a link that is still to open for the first time.
  void close(kv_clock::time_point deadline);

  // Container thread.
  void open(proton::connection& connection);
  // The connection is gone: forget everything that belonged to it.
  void lost();
  // The broker ended what the messages in flight travelled on.
  void blame_in_flight(const proton::error_condition& condition);
  // Called with every job; set once before the first connection.
  void on_flush(std::function<void()> job) { serve_receivers_ = std::move(job); }

  // Handlers, container thread.
  void on_connection_open(proton::connection& connection) override;
  void on_sender_open(proton::sender& sender) override;
  void on_sendable(proton::sender& sender) override;
  void on_tracker_accept(proton::tracker& tracker) override;
  void on_tracker_reject(proton::tracker& tracker) override;
  void on_tracker_release(proton::tracker& tracker) override;
  void on_tracker_settle(proton::tracker& tracker) override;
  void on_sender_error(proton::sender& sender) override;
  void on_sender_close(proton::sender& sender) override;
  void on_error(const proton::error_condition& condition) override;

 private:
  // How far a message has come.
  enum class progress {
    done,         // it is with Proton, or needs not go out
    begun,        // a portion is with Proton, and the next can follow
    socket_full,  // the last portion has not left yet
    held,         // for credit, or for the outcome of another
  };

  template <class Done>
  bool wait_while_asked(std::unique_lock<std::mutex>& lock, kv_clock::time_point deadline,
                        const Done& done);
  void post_locked();
  void flush();
  void take_outbox();
  void send_pending();
  void drop_what_is_over();
  [[nodiscard]] progress flush_one(kv_outgoing& message);
  [[nodiscard]] bool is_over(const kv_outgoing& message);
  [[nodiscard]] bool must_wait(const kv_outgoing& message);
  void begin();
  [[nodiscard]] progress transmit(kv_outgoing& message);
  void go_on(progress reached);
  void go_on_later(kv_ms delay);
  void pop_front();
  [[nodiscard]] bool is_current(const kv_request_ref& request) const;
  void settle_request(const kv_request_ref& request, kv_outcome outcome);
  void finish(proton::tracker& tracker, const char* refusal);
  void end_message(const kv_outgoing& message, const char* refusal);
  void finish_unsent_rest(proton::tracker& tracker, const char* refusal);
  void take_back();
  void link_closed(proton::sender& sender);

  kv_qpid_state& state_;
  kv_qpid_link_owner& owner_;
  std::function<void()> serve_receivers_;  // constant after start

  // Container thread only.
  proton::sender sender_;
  std::uint64_t next_tag_ = 0;
  std::map<std::uint64_t, kv_outgoing> by_tag_;  // sent, outcome still to come; by age
  std::vector<kv_outgoing> batch_;               // just taken from the outbox
  std::deque<kv_outgoing> pending_;              // messages in the order in which they go out
  std::size_t front_sent_ = 0;  // bytes of the front message handed to Proton so far
  kv_qpid_suspects suspects_;
  std::uint64_t lonely_tag_ = 0;          // of a suspect in flight; 0: none
  kv_clock::time_point last_progress_{};  // a message went out or got its outcome
  std::uint64_t timer_ = 0;               // number of the pending timer
  bool timer_pending_ = false;
  int closed_links_ = 0;      // of this connection
  bool reconnected_ = false;  // the link has been open before

  // Shared, under the mutex.
  mutable std::mutex mutex_;
  std::condition_variable changed_;           // work queue, credit, closed
  proton::work_queue* work_queue_ = nullptr;  // dies with its connection: used under the mutex
  bool posted_ = false;                       // a job is on its way
  bool opened_ = false;                       // the link has been open once
  bool closed_ = false;                       // the transport ends
  int queued_ = 0;                            // messages not yet handed to Proton
  int credit_ = 0;                            // of the link, as last known
  int waiting_ = 0;                           // threads in send
  std::vector<kv_outgoing> outbox_;
};
