#pragma once
// Queues, producers and consumers of the broker and how messages go between them. Works on the
// Proton links that it is given, on the broker's thread only; the event loop feeds it.

#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/types.h>

#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "broker.h"

namespace kv_suite {

struct consumer;

struct broker_queue_entry {
  std::string name;
  broker_queue messages;
  std::vector<consumer*> consumers = {};
  std::size_t next_consumer = 0;  // where the next round begins
  service_handler service = {};   // set: answered inside the process
  std::size_t producers = 0;      // links whose target it is
  bool temporary = false;         // goes with the link that made it
};

// Sending link of the broker.
struct consumer {
  pn_link_t* link = nullptr;
  broker_queue_entry* queue = nullptr;
  bool settles_on_send = false;
  std::uint64_t next_tag = 1;
  std::unordered_map<pn_delivery_t*, broker_message_ptr> unsettled = {};
};

// Receiving link of the broker.
struct producer {
  broker_queue_entry* queue = nullptr;  // null: each message names its own
  std::string partial;                  // message that is arriving
};

class broker_routing {
 public:
  broker_routing(const broker_config& config, note_handler& note) : config_(config), note_(note) {}

  void add_service(const std::string& queue, service_handler handler);

  void attach(pn_link_t* link);
  // These links are gone or going, all at once: their unsettled messages return to the queues, and
  // to none of these links again.
  void detach(std::span<pn_link_t* const> links);
  void flow(pn_link_t* link);
  void delivery(pn_delivery_t* delivery);
  // Wakes the connections that were sent on since the last call, once each. Called at the end of
  // every batch of events, while all of them still exist.
  void wake_written();
  // Drops expired messages and queues that nobody uses.
  void tidy();

 private:
  enum class verdict { queued, no_address, no_queue, full, no_message, too_many_queues };

  broker_queue_entry* find_or_make(const std::string& name);
  void attach_consumer(pn_link_t* link);
  void attach_producer(pn_link_t* link);
  void put_back_unsettled(consumer& from);
  void detach_producer(pn_link_t* link);
  std::string make_temporary(pn_terminus_t* terminus);
  void drop_temporary(broker_queue_entry* queue);

  void receive(pn_link_t* link, pn_delivery_t* delivery, producer& from);
  static void tell(pn_delivery_t* delivery, verdict result);
  verdict route(broker_queue_entry* queue, std::string encoded);
  verdict serve(const broker_queue_entry& queue, const std::string& encoded);

  void dispatch(broker_queue_entry& queue);
  consumer* next_with_credit(broker_queue_entry& queue);
  void send(consumer& to, const broker_message_ptr& message, broker_clock::time_point now);
  void settle(consumer& at, pn_delivery_t* delivery);

  const broker_config& config_;
  note_handler& note_;
  std::unordered_map<std::string, std::unique_ptr<broker_queue_entry>> queues_;
  std::vector<pn_connection_t*> written_;
};

}  // namespace kv_suite
