// The supervisor loop, the steps of the start-up and the shutdown, over a fake transport.
#include "worker/kv_worker_process.h"

#include <sys/stat.h>

#include <numeric>

#include "activecontent/kvactivecontent_service_internal.h"
#include "process_fixture.h"
#include "support/temp_dir.h"
#include "worker/kv_worker_load.h"
#include "worker/kv_worker_startup_internal.h"

namespace {

// A process whose records are made and whose command line has been read.
class worker_process : public process_fixture {
 protected:
  worker_process() {
    reset_fake_transport();
    EXPECT_EQ(kv_start_records(process), kv_step_end::next);
    process.argc = 1;
    process.argv = argv;
    settings().basedir = strdup(folder.path().c_str());
    settings().amqp->broker_host = strdup("h");
    settings().amqp->broker_port = strdup("1");
    settings().worker_threads = 2;
    process.identity = {"w_h_1", "own"};
  }
  ~worker_process() override {
    if (process.shared) {
      set_busy(0);
      static_cast<void>(kv_worker_shut_down(process));
    }
  }

  kv_worker_config_t& settings() { return *process.config; }
  void start_threads() {
    EXPECT_EQ(kv_start_service(process), kv_step_end::next);
    EXPECT_EQ(kv_start_worker_threads(process), kv_step_end::next);
  }
  void start_samples(std::int32_t value) {
    EXPECT_EQ(kv_start_load_samples(process), kv_step_end::next);
    std::fill_n(process.load_samples.get(), process.load_sample_count, value);
  }
  void set_busy(int count) {
    if (process.threads == nullptr) {
      return;
    }
    for (void* item = zlist_first(process.threads); item != nullptr;
         item = zlist_next(process.threads)) {
      static_cast<worker_thread_parameters*>(item)->current_status =
          count-- > 0 ? KV_THREAD_BUSY : KV_THREAD_IDLE;
    }
  }

  temp_dir folder;
  char program[8] = "worker";
  char* argv[2] = {program, nullptr};
  kv_worker_process_t process;
};

// ---- start-up ----

TEST_F(worker_process, the_version_file_is_written_whole_each_time) {
  ASSERT_EQ(kv_start_version_file(process), kv_step_end::next);
  const std::string file = folder.file("kv-av-activecontent/.running_version");
  const std::string expected =
      "korvane Anti-Virus 4.0.3 Build 125\r\nkv-av-activecontent v.1.45\n ";
  EXPECT_EQ(read_whole_file(file), expected);
  write_whole_file(file, std::string(500, 'x'));
  ASSERT_EQ(kv_start_version_file(process), kv_step_end::next);
  EXPECT_EQ(read_whole_file(file), expected);
}

TEST_F(worker_process, a_missing_worker_directory_is_made_for_owner_and_group) {
  ASSERT_EQ(kv_start_version_file(process), kv_step_end::next);
  struct stat status {};
  ASSERT_EQ(stat(folder.file("kv-av-activecontent").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0750U);
}

TEST_F(worker_process, a_version_file_that_cannot_be_written_ends_the_worker) {
  write_whole_file(folder.file("kv-av-activecontent"), "a file in the way");
  testing::internal::CaptureStderr();
  EXPECT_EQ(kv_start_version_file(process), kv_step_end::shut_down);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Failed to write version file"),
            std::string::npos);
  EXPECT_EQ(process.rc, -1);
}

TEST_F(worker_process, broker_settings_that_cannot_be_made_end_the_worker) {
  fake_transport().config_can_be_made = false;
  kv_worker_process_t other;
  testing::internal::CaptureStderr();
  EXPECT_EQ(kv_start_records(other), kv_step_end::shut_down);
  EXPECT_EQ(
      testing::internal::GetCapturedStderr().rfind("Failed to allocate AMQP config struct: ", 0),
      0U);
  EXPECT_EQ(kv_worker_shut_down(other), -1);
}

TEST_F(worker_process, the_broker_layer_gets_the_flag_and_its_failure_ends_the_worker) {
  settings().amqp_over_http = 1;
  EXPECT_EQ(kv_start_broker(process), kv_step_end::next);
  EXPECT_EQ(settings().amqp->use_uamqp, 1);
  fake_transport().init_rc = 7;
  EXPECT_EQ(kv_start_broker(process), kv_step_end::shut_down);
  EXPECT_EQ(process.rc, -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to initialize the broker layer, rc=7"), 1);
}

TEST_F(worker_process, the_load_samples_cover_twice_the_period) {
  settings().autoscale_monitoring_period = 7;
  ASSERT_EQ(kv_start_load_samples(process), kv_step_end::next);
  ASSERT_EQ(process.load_sample_count, 14);
  EXPECT_EQ(std::accumulate(process.load_samples.get(), process.load_samples.get() + 14, 0), -14);
}

TEST_F(worker_process, as_many_threads_start_as_are_configured) {
  start_threads();
  EXPECT_EQ(zlist_size(process.threads), 2U);
  EXPECT_EQ(trace.count("DEBUG", "Starting worker thread 0 and parameters at "), 1);
  EXPECT_EQ(trace.count("DEBUG", "Starting worker thread 1 and parameters at "), 1);
}

TEST_F(worker_process, zero_and_negative_counts_start_no_thread) {
  for (const int count : {0, -5}) {
    zlist_destroy(&process.threads);
    settings().worker_threads = count;
    EXPECT_EQ(kv_start_worker_threads(process), kv_step_end::next);
    EXPECT_EQ(zlist_size(process.threads), 0U);
  }
  EXPECT_TRUE(fake_transport().services.empty());
}

TEST_F(worker_process, the_first_thread_that_fails_ends_the_worker) {
  fake_transport().start = [](const fake_service&) {
    return fake_transport().services.size() > 1 ? -1 : 0;
  };
  settings().worker_threads = 5;
  EXPECT_EQ(kv_start_service(process), kv_step_end::next);
  EXPECT_EQ(kv_start_worker_threads(process), kv_step_end::shut_down);
  EXPECT_EQ(fake_transport().services.size(), 2U);
  EXPECT_EQ(process.rc, -1);
  EXPECT_EQ(process.error_text, "Active content detection failed to create worker thread(s)");
  EXPECT_EQ(trace.count("FATAL", "Failed to create worker thread number 1"), 1);
}

TEST_F(worker_process, the_update_lock_is_opened) {
  ASSERT_EQ(kv_start_version_file(process), kv_step_end::next);
  ASSERT_EQ(kv_start_update(process), kv_step_end::next);
  EXPECT_GE(update_lockfile, 0);
  struct stat status {};
  EXPECT_EQ(stat(folder.file("kv-av-activecontent/.update.lock").c_str(), &status), 0);
  EXPECT_EQ(kv_worker_shut_down(process), 0);
  EXPECT_EQ(update_lockfile, -1);
}

TEST_F(worker_process, the_own_secret_is_fresh_and_of_the_known_alphabet) {
  ASSERT_EQ(kv_start_registration(process), kv_step_end::next);
  const std::string first = process.identity.own_secret;
  ASSERT_EQ(kv_start_registration(process), kv_step_end::next);
  EXPECT_EQ(first.size(), 32U);
  EXPECT_NE(first, process.identity.own_secret);
  EXPECT_EQ(first.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz"
                                    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"),
            std::string::npos);
  EXPECT_NE(fake_transport().requests.front().text.find(first), std::string::npos);
  EXPECT_EQ(trace.count("TRACE", "Registered kv-av-activecontent_"), 2);
}

TEST_F(worker_process, announcements_are_sent_where_they_were_asked_for) {
  EXPECT_EQ(kv_start_announcements(process), kv_step_end::next);
  EXPECT_TRUE(fake_transport().requests.empty());
  settings().signal_when_ready = strdup("launcher");
  settings().shutdown_when_ready = strdup("temporary");
  EXPECT_EQ(kv_start_announcements(process), kv_step_end::next);
  ASSERT_EQ(fake_transport().requests.size(), 2U);
  EXPECT_EQ(fake_transport().requests[0].service, "launcher");
  EXPECT_EQ(fake_transport().requests[1].service, "temporary");
}

TEST_F(worker_process, an_announcement_that_fails_ends_the_worker) {
  fake_transport().answer = [](const fake_request&) { return ""; };
  settings().shutdown_when_ready = strdup("temporary");
  EXPECT_EQ(kv_start_announcements(process), kv_step_end::shut_down);
  EXPECT_EQ(process.rc, -1);
  process.rc = 0;
  settings().signal_when_ready = strdup("launcher");
  EXPECT_EQ(kv_start_announcements(process), kv_step_end::shut_down);
  EXPECT_EQ(process.rc, -1);
  EXPECT_EQ(fake_transport().requests.back().service, "launcher");
}

TEST_F(worker_process, a_worker_on_its_way_out_announces_nothing) {
  killed = 1;
  settings().signal_when_ready = strdup("launcher");
  EXPECT_EQ(kv_start_registration(process), kv_step_end::next);
  EXPECT_EQ(kv_start_announcements(process), kv_step_end::next);
  EXPECT_TRUE(fake_transport().requests.empty());
  EXPECT_EQ(trace.count("Registered "), 0);
}

TEST_F(worker_process, the_control_thread_serves_the_workers_own_address) {
  ASSERT_EQ(kv_start_control_thread(process), kv_step_end::next);
  ASSERT_EQ(fake_transport().services.size(), 1U);
  EXPECT_EQ(fake_transport().services[0].name, "w_h_1");
  EXPECT_EQ(fake_transport().services[0].argument, process.shared.get());
  EXPECT_EQ(fake_transport().services[0].threads, 1);
  fake_transport().start = [](const fake_service&) { return -1; };
  EXPECT_EQ(kv_start_control_thread(process), kv_step_end::shut_down);
  EXPECT_EQ(process.rc, -1);
  EXPECT_EQ(trace.count("Failed to create control job handler thread"), 1);
}

// ---- load ----

TEST_F(worker_process, a_load_above_the_high_mark_is_told_and_forgotten) {
  start_threads();
  start_samples(100);
  set_busy(2);
  kv_worker_check_load(process);
  EXPECT_EQ(fake_transport().texts(), std::vector<std::string>{kv_notice_text(201, "w_h_1", 0)});
  EXPECT_EQ(trace.count("DEBUG",
                        "Load High-Water mark met. Average load exceeds 75 percent over the past "
                        "60 seconds"),
            1);
  EXPECT_EQ(process.load_samples[119], -1);
  kv_worker_check_load(process);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
}

TEST_F(worker_process, a_load_below_the_low_mark_is_told_by_a_worker_that_is_not_primary) {
  start_threads();
  start_samples(0);
  kv_worker_check_load(process);
  EXPECT_EQ(fake_transport().texts(), std::vector<std::string>{kv_notice_text(202, "w_h_1", 0)});
  EXPECT_EQ(trace.count("DEBUG",
                        "Load Low-Water mark met. Average load is less than 10 percent over the "
                        "past 60 seconds"),
            1);
  settings().primary = 1;
  std::fill_n(process.load_samples.get(), process.load_sample_count, 0);
  kv_worker_check_load(process);
  EXPECT_EQ(fake_transport().requests.size(), 1U);
}

TEST_F(worker_process, a_load_at_a_mark_is_no_news) {
  settings().worker_threads = 4;
  start_threads();
  start_samples(75);
  set_busy(3);
  kv_worker_check_load(process);
  settings().autoscale_low_water_mark = 75;
  kv_worker_check_load(process);
  EXPECT_TRUE(fake_transport().requests.empty());
}

TEST_F(worker_process, marks_that_cross_give_both_notices_on_one_average) {
  settings().autoscale_high_water_mark = 2;
  settings().autoscale_low_water_mark = 99;
  start_threads();
  start_samples(50);
  set_busy(1);
  kv_worker_check_load(process);
  EXPECT_EQ(fake_transport().requests.size(), 2U);
}

TEST_F(worker_process, a_notice_that_fails_changes_nothing_else) {
  fake_transport().answer = [](const fake_request&) { return ""; };
  start_threads();
  start_samples(100);
  set_busy(2);
  kv_worker_check_load(process);
  EXPECT_EQ(trace.count("ERROR", "Failed to send HWM notification message"), 1);
  EXPECT_EQ(process.load_samples[0], -1);
  std::fill_n(process.load_samples.get(), process.load_sample_count, 0);
  set_busy(0);
  kv_worker_check_load(process);
  EXPECT_EQ(trace.count("ERROR", "Failed to send LWM notification message"), 1);
}

TEST_F(worker_process, without_threads_no_notice_is_sent) {
  settings().worker_threads = 0;
  start_threads();
  start_samples(0);
  kv_worker_check_load(process);
  EXPECT_TRUE(fake_transport().requests.empty());
}

// ---- supervisor loop ----

TEST_F(worker_process, the_loop_ends_with_the_process) {
  start_threads();
  start_samples(-1);
  killed = 1;
  kv_worker_supervise(process);
  EXPECT_EQ(process.rc, 0);
  EXPECT_EQ(trace.count("INFO", "Signal received. Exiting gracefully..."), 1);
  EXPECT_TRUE(fake_transport().requests.empty());
}

TEST_F(worker_process, the_worker_registers_again_after_more_than_its_interval) {
  settings().register_interval = 1;
  start_threads();
  start_samples(-1);
  std::vector<std::chrono::steady_clock::time_point> times{std::chrono::steady_clock::now()};
  fake_transport().answer = [&](const fake_request&) {
    times.push_back(std::chrono::steady_clock::now());
    killed = times.size() == 3 ? 1 : 0;
    return "{}";
  };
  kv_worker_supervise(process);
  ASSERT_EQ(times.size(), 3U);
  const std::string text = fake_transport().requests.front().text;
  EXPECT_EQ(text,
            kv_register_text(kv_registration::repeated, process.identity.name.c_str(), 0, "own"));
  EXPECT_EQ(process.identity.name.rfind("kv-av-activecontent_", 0), 0U);
  // Strictly more than one whole second is two of them, whose first may have begun already.
  EXPECT_GE(times[1] - times[0], std::chrono::milliseconds(1000));
  EXPECT_GE(times[2] - times[1], std::chrono::milliseconds(1000));
  EXPECT_LE(times[2] - times[1], std::chrono::milliseconds(3500));
}

TEST_F(worker_process, samples_are_taken_only_with_autoscale) {
  start_threads();
  for (const bool autoscale : {false, true}) {
    settings().autoscale = autoscale ? 1 : 0;
    start_samples(-1);
    killed = 1;
    kv_worker_supervise(process);
    EXPECT_EQ(process.load_samples[process.load_sample_count - 1], autoscale ? 0 : -1);
  }
}

TEST_F(worker_process, an_activated_update_that_cannot_be_completed_ends_the_worker_with_zero) {
  start_threads();
  settings().update_thread->new_version = strdup("/opt/kv/17");
  settings().update_thread->update_state = KV_UPDATE_ACTIVATED;
  process.rc = -7;
  kv_worker_supervise(process);
  EXPECT_EQ(process.rc, 0);
  EXPECT_EQ(settings().update_thread->update_state, KV_UPDATE_IDLE);
  EXPECT_EQ(trace.count("INFO", "Update activation complete. Restarting worker from /opt/kv/17"),
            1);
  EXPECT_EQ(trace.count("ERROR", "Failed to complete update activation"), 1);
}

// ---- shutdown ----

TEST_F(worker_process, shutdown_stops_requests_before_the_broker_and_the_service) {
  ASSERT_EQ(kv_start_broker(process), kv_step_end::next);
  start_threads();
  std::uint32_t target = 0;
  int killed_at_stop = 0;
  auto* thread = static_cast<worker_thread_parameters*>(fake_transport().services[0].argument);
  fake_transport().on_stop = [&] {
    target = thread->target_status;
    killed_at_stop = killed;
  };
  EXPECT_EQ(kv_worker_shut_down(process), 0);
  EXPECT_EQ(fake_transport().calls, (std::vector<std::string>{"init", "stop services", "deinit"}));
  EXPECT_EQ(fake_transport().stop_limit_ms, 5000U);
  EXPECT_EQ(target, KV_TARGET_TERMINATE);
  EXPECT_EQ(killed_at_stop, 1);
  EXPECT_EQ(process.threads, nullptr);
  EXPECT_EQ(process.shared, nullptr);
}

TEST_F(worker_process, shutdown_logs_its_steps_and_nothing_behind_the_last_line) {
  ASSERT_EQ(kv_start_broker(process), kv_step_end::next);
  start_threads();
  process.rc = -1;
  const std::size_t before = trace.lines().size();
  EXPECT_EQ(kv_worker_shut_down(process), -1);
  const auto lines = trace.lines();
  std::vector<std::string> steps;
  for (std::size_t i = before; i < lines.size(); ++i) {
    for (const char* text : {"Shutdown complete", "Starting worker global cleanup",
                             "Cleaning up SSL", "Ending worker with rc=-1"}) {
      if (lines[i].find(text) != std::string::npos) {
        steps.emplace_back(text);
      }
    }
  }
  EXPECT_EQ(steps, (std::vector<std::string>{"Shutdown complete", "Starting worker global cleanup",
                                             "Cleaning up SSL", "Ending worker with rc=-1"}));
  EXPECT_NE(lines.back().find("Ending worker with rc=-1"), std::string::npos);
}

TEST_F(worker_process, shutdown_frees_nothing_that_a_running_scan_uses) {
  start_threads();
  start_samples(-1);
  set_busy(1);
  EXPECT_EQ(kv_worker_shut_down(process), 0);
  EXPECT_TRUE(process.work_left_behind);
  ASSERT_EQ(process.ended_threads.size(), 2U);
  EXPECT_EQ(process.ended_threads[0]->shared, process.shared.get());
  EXPECT_NE(process.shared->service, nullptr);
  process.ended_threads[0]->current_status = KV_THREAD_IDLE;
  kv_service_state_free(&process.shared->service);
  process.shared.reset();
}

TEST_F(worker_process, shutdown_of_a_process_without_records_touches_nothing) {
  kv_worker_process_t bare;
  bare.rc = -1;
  EXPECT_EQ(kv_worker_shut_down(bare), -1);
  EXPECT_TRUE(fake_transport().calls.empty());
}

}  // namespace
