// What the worker reports of its life, as it stands in the queue. No dispatcher thread takes part.
#include "worker/kv_worker_events.h"

#include <fcntl.h>
#include <unistd.h>

#include "common/kv_json.h"
#include "logging/kv_log.h"
#include "process_fixture.h"
#include "support/temp_dir.h"

namespace {

class worker_events : public process_fixture {
 protected:
  worker_events() {
    dispatcher.queue = kv_pqueue_open(folder.path().c_str(), "q", 100, 100000, O_CREAT, 1);
    config->log_dispatcher = &dispatcher;
    config->worker_threads = 7;
  }
  ~worker_events() override {
    config->log_dispatcher = nullptr;
    kv_pqueue_close(dispatcher.queue);
  }

  // Takes the oldest record of a type off the queue.
  kv_json_ptr take(char type) const {
    const kv_pqueue_data_ptr entry{kv_pqueue_pop(dispatcher.queue, type)};
    if (!entry) {
      return nullptr;
    }
    unlink(entry->path);
    return kv_json_ptr{json_tokener_parse(reinterpret_cast<const char*>(entry->data))};
  }
  // The text at a path of keys, or "<none>".
  static std::string at(const kv_json_ptr& record, std::initializer_list<const char*> keys) {
    json_object* value = record.get();
    for (const char* key : keys) {
      if (!json_object_object_get_ex(value, key, &value)) {
        return "<none>";
      }
    }
    return json_object_get_string(value);
  }
  static std::string who(const char* role) {
    return std::string("Active content detection worker") + role + ", PID " +
           std::to_string(getpid());
  }

  temp_dir folder;
  kv_log_dispatcher dispatcher{config->amqp, nullptr, {0}, 0, nullptr};
};

TEST_F(worker_events, ready_is_a_status_log_and_an_event) {
  kv_worker_report_ready(*config);
  const std::string text = who("") + " ready with 7 threads";
  EXPECT_EQ(at(take('L'), {"StatusLog", "LogData", "Message"}), text);
  const kv_json_ptr event = take('E');
  EXPECT_EQ(at(event, {"Command"}), "501");
  EXPECT_EQ(at(event, {"Event", "Type"}), "3010");
  EXPECT_EQ(at(event, {"Event", "Event-Message"}), text);
  EXPECT_EQ(at(event, {"Event", "Error"}), "<none>");
}

TEST_F(worker_events, the_role_stands_in_the_texts) {
  config->primary = 1;
  kv_worker_report_ready(*config);
  EXPECT_EQ(at(take('L'), {"StatusLog", "LogData", "Message"}),
            who(" (Primary)") + " ready with 7 threads");
  config->signal_when_ready = strdup("other");
  kv_worker_report_shutdown(*config, "");
  EXPECT_EQ(at(take('L'), {"StatusLog", "LogData", "Message"}),
            who(" (Temporary)") + " shutting down");
}

TEST_F(worker_events, an_orderly_shutdown_is_event_3030) {
  kv_worker_report_shutdown(*config, "");
  const kv_json_ptr log = take('L');
  EXPECT_EQ(at(log, {"StatusLog", "LogData", "Message"}), who("") + " shutting down");
  EXPECT_EQ(at(log, {"ErrorLog"}), "<none>");
  const kv_json_ptr event = take('E');
  EXPECT_EQ(at(event, {"Event", "Type"}), "3030");
  EXPECT_EQ(at(event, {"Event", "Event-Message"}), who("") + " shutting down");
  EXPECT_EQ(take('E'), nullptr);
}

TEST_F(worker_events, a_shutdown_after_an_error_is_event_3020_alone) {
  kv_worker_report_shutdown(*config, "it broke");
  const kv_json_ptr log = take('L');
  EXPECT_EQ(at(log, {"ErrorLog", "LogData", "Message"}), "it broke");
  EXPECT_EQ(at(log, {"StatusLog", "LogData", "Message"}), who("") + " shutting down");
  const kv_json_ptr event = take('E');
  EXPECT_EQ(at(event, {"Event", "Type"}), "3020");
  EXPECT_EQ(at(event, {"Event", "Error"}), "it broke");
  EXPECT_EQ(at(event, {"Event", "Event-Message"}), "it broke");
  EXPECT_EQ(take('E'), nullptr);
}

TEST_F(worker_events, a_load_notice_is_an_event) {
  kv_worker_report_load(*config, KV_EVENT_HIGH_WATER_MARK, "busy");
  const kv_json_ptr event = take('E');
  EXPECT_EQ(at(event, {"Event", "Type"}), "3060");
  EXPECT_EQ(at(event, {"Event", "Event-Message"}), "busy");
  EXPECT_EQ(take('L'), nullptr);
}

TEST_F(worker_events, without_a_dispatcher_nothing_is_reported) {
  config->log_dispatcher = nullptr;
  kv_worker_report_ready(*config);
  kv_worker_report_load(*config, KV_EVENT_LOW_WATER_MARK, "idle");
  kv_worker_report_shutdown(*config, "");
  kv_worker_stop_event_log(*config);
  EXPECT_EQ(take('L'), nullptr);
  EXPECT_EQ(take('E'), nullptr);
}

TEST_F(worker_events, without_a_queue_the_worker_goes_on) {
  kv_log_dispatcher no_queue{config->amqp, nullptr, {0}, 0, nullptr};
  config->log_dispatcher = &no_queue;
  kv_worker_report_ready(*config);
  kv_worker_report_shutdown(*config, "it broke");
  EXPECT_EQ(trace.count("Enqueuing"), 0);
}

}  // namespace
