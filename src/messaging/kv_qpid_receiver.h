#pragma once
// One receiving link per address, shared by all threads that take from it: either the queue of a
// service, whose requests are settled only when they are answered, or this process's reply queue,
// where each waiting requester has a condition of its own. The link takes a fixed number of
// messages ahead; a credit goes back for each message taken out of the buffer.

#include <proton/delivery.hpp>
#include <proton/message.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "messaging/kv_qpid_replies.h"
#include "messaging/kv_qpid_requests.h"
#include "messaging/kv_qpid_sender.h"
#include "messaging/kv_qpid_state.h"

// Start of the name of every reply queue.
inline constexpr const char* KV_REPLY_QUEUE_PREFIX = "kv-replies-";

class qpid_receiver : public proton::messaging_handler {
 public:
  qpid_receiver(kv_qpid_state& state, kv_qpid_link_owner& owner, qpid_sender& sender,
                std::string address);

  // Any thread.
  [[nodiscard]] const std::string& address() const { return address_; }
  [[nodiscard]] bool takes_replies() const { return takes_replies_; }
  [[nodiscard]] std::uint32_t credit() const { return credit_seen_.load(); }
  // What threads that serve requests register with.
  [[nodiscard]] kv_request_queue& requests() { return requests_; }
  // The next request, or nothing once *stop is non-zero or the receiver is closed.
  [[nodiscard]] std::optional<kv_received_message> receive(kv_request_thread& self,
                                                           const std::atomic<std::int32_t>& stop);
  // Announces, before it is sent, a request whose reply will be received; forget ends that. Of
  // replies that nobody has announced only a few are kept.
  void expect(const proton::message_id& id);
  void forget(const proton::message_id& id);
  // The reply to an announced request. Throws std::runtime_error: "Timeout", "receiver closed".
  [[nodiscard]] kv_received_message receive(kv_ms timeout, const proton::message_id& id);
  // Takes no more messages; whoever waits is woken.
  void close();
  // After close: waits until every request that came is answered or released, or the link is gone.
  bool wait_until_done(kv_clock::time_point deadline);

  // Container thread.
  // Opens the link unless it is open or the receiver is closed.
  void open(proton::connection& connection);
  // Gives back credit, begins to stop: what other threads asked for since the last call.
  void serve();
  // Gives the delivery of a request its outcome.
  void settle(std::uint64_t sequence, kv_outcome outcome);
  // The connection is gone: its requests come again, its deliveries are dead.
  void lost();
  // A delivery without a single byte has come. It is settled by the caller.
  void on_empty_delivery();

  // Handlers, container thread.
  void on_connection_open(proton::connection& connection) override;
  void on_receiver_open(proton::receiver& receiver) override;
  void on_message(proton::delivery& delivery, proton::message& message) override;
  void on_receiver_drain_finish(proton::receiver& receiver) override;
  void on_receiver_error(proton::receiver& receiver) override;
  void on_receiver_close(proton::receiver& receiver) override;
  void on_error(const proton::error_condition& condition) override;

 private:
  // A requester that waits for its reply; lives on the stack of its thread.
  struct waiter {
    std::condition_variable arrived;
  };

  [[nodiscard]] kv_received_message read(const proton::message& message) const;
  void keep_request(proton::delivery& delivery, kv_received_message&& message);
  void keep_reply(proton::delivery& delivery, kv_received_message&& message);
  [[nodiscard]] std::optional<kv_received_message> match_reply(const std::string& wanted);
  [[nodiscard]] kv_received_message wait_for_reply(std::unique_lock<std::mutex>& lock, waiter& own,
                                                   kv_ms timeout, const proton::message_id& id,
                                                   const std::string& key);
  void owe_credit(std::uint32_t count);
  void begin_stop();
  void release_buffered();
  void finish_stop_when_empty();

  kv_qpid_state& state_;
  kv_qpid_link_owner& owner_;
  qpid_sender& sender_;
  const std::string address_;
  const bool takes_replies_;

  // Container thread only.
  proton::receiver receiver_;
  std::uint64_t next_sequence_ = 0;
  std::unordered_map<std::uint64_t, proton::delivery> open_;  // requests not yet settled
  bool stop_begun_ = false;
  bool drained_ = false;  // nothing more will come

  kv_request_queue requests_;                  // of a service's address
  std::atomic<bool> ever_opened_{false};       // the link has been open
  std::atomic<std::uint32_t> owed_credit_{0};  // taken out of the buffer, not yet given back
  std::atomic<std::uint32_t> credit_seen_{0};  // of the link, as last known

  // Shared, under the mutex.
  std::mutex mutex_;
  std::condition_variable stopped_;  // done
  bool linked_ = false;              // a link exists
  bool closed_ = false;              // take nothing more
  bool done_ = false;                // after closed: nothing of it is left
  kv_reply_buffer replies_;
  std::unordered_set<std::string> expected_;          // keys of the announced requests
  std::unordered_map<std::string, waiter*> waiters_;  // by the key of the request's id
};
