#include "worker/kv_worker_threads.h"

#include "activecontent/kvactivecontent_service_internal.h"
#include "process_fixture.h"
#include "worker/kv_worker_client_request.h"

namespace {

class worker_threads : public process_fixture {
 protected:
  worker_threads() : list(zlist_new()) {
    char error[KV_ERROR_TEXT_SIZE] = "";
    EXPECT_EQ(kv_worker_global_init(config.get(), shared.get(), error), 0);
  }
  ~worker_threads() override {
    const auto freed = kv_worker_take_parameters(list);
    zlist_destroy(&list);
    kv_service_state_free(&shared->service);
  }
  worker_thread_parameters& first() {
    return *static_cast<worker_thread_parameters*>(zlist_first(list));
  }

  zlist_t* list;
};

TEST_F(worker_threads, a_thread_is_one_receiver_on_the_service_address) {
  ASSERT_EQ(kv_worker_create_thread(list, shared.get()), 0);
  ASSERT_EQ(fake_transport().services.size(), 1U);
  const fake_service& service = fake_transport().services.front();
  EXPECT_EQ(service.name, "kv-av-activecontent");
  EXPECT_EQ(service.callback, &kv_worker_client_request_handler);
  EXPECT_EQ(service.argument, &first());
  EXPECT_EQ(service.stop, &killed);
  EXPECT_EQ(service.threads, 1);
  EXPECT_EQ(first().target_status, KV_TARGET_RUN);
  EXPECT_EQ(first().current_status, KV_THREAD_STARTING);
  EXPECT_EQ(first().shared, shared.get());
  EXPECT_EQ(first().reserved[0], 0U);
  EXPECT_EQ(first().thread_local_parameters->state, 0U);
  EXPECT_EQ(trace.count("TRACE", "kv_worker_create_thread(): Entering"), 1);
  EXPECT_EQ(trace.count("TRACE", "kv_worker_create_thread(): Exiting, rc= 0"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Initializing service kv-av-activecontent"), 1);
}

TEST_F(worker_threads, a_receiver_that_cannot_start_makes_no_thread) {
  fake_transport().start = [](const fake_service&) { return -1; };
  EXPECT_EQ(kv_worker_create_thread(list, shared.get()), -1);
  EXPECT_EQ(zlist_size(list), 0U);
  EXPECT_EQ(trace.count("ERROR", "Failed to create worker thread"), 1);
  EXPECT_EQ(trace.count("TRACE", "Exiting, rc= -1"), 1);
}

TEST_F(worker_threads, the_end_of_the_process_does_not_stop_a_thread_from_starting) {
  killed = 1;
  EXPECT_EQ(kv_worker_create_thread(list, shared.get()), 0);
  EXPECT_EQ(fake_transport().services.size(), 1U);
}

TEST_F(worker_threads, target_status_reaches_all) {
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(kv_worker_create_thread(list, shared.get()), 0);
  }
  kv_worker_set_all_threads_target_status(list, KV_TARGET_HOLD);
  for (const fake_service& service : fake_transport().services) {
    EXPECT_EQ(static_cast<worker_thread_parameters*>(service.argument)->target_status,
              KV_TARGET_HOLD);
  }
  EXPECT_EQ(kv_worker_resume_all_threads(list), 0);
  EXPECT_EQ(first().target_status, KV_TARGET_RESUME);
  EXPECT_EQ(trace.count("TRACE", "kv_worker_set_all_threads_target_status(): Entering"), 2);
}

TEST_F(worker_threads, termination_destroys_the_list_and_keeps_the_parameters) {
  ASSERT_EQ(kv_worker_create_thread(list, shared.get()), 0);
  const auto kept = kv_worker_take_parameters(list);
  kv_worker_terminate_all_threads(&list);
  EXPECT_EQ(list, nullptr);
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(kept.front()->target_status, KV_TARGET_TERMINATE);
  EXPECT_EQ(trace.count("TRACE", "kv_worker_terminate_all_threads(): Entering"), 1);
  kv_worker_terminate_all_threads(&list);
  EXPECT_TRUE(kv_worker_take_parameters(nullptr).empty());
}

TEST_F(worker_threads, holding_nothing_succeeds_at_once) {
  EXPECT_EQ(kv_worker_hold_all_threads(list, 60), 0);
  EXPECT_EQ(trace.count("TRACE", "Exiting: rc= 0"), 1);
}

TEST_F(worker_threads, holding_ends_with_its_time_and_resumes) {
  ASSERT_EQ(kv_worker_create_thread(list, shared.get()), 0);
  for (const std::uint32_t status : {KV_THREAD_IDLE, KV_THREAD_HELD}) {
    first().current_status = status;
    EXPECT_EQ(kv_worker_hold_all_threads(list, 0), -1);
    EXPECT_EQ(first().target_status, KV_TARGET_RESUME);
  }
  EXPECT_EQ(trace.count("TRACE", "Exiting: rc= -1"), 2);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kv_worker_hold_all_threads(list, 1), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

}  // namespace
