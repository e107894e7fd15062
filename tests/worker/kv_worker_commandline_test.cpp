#include "worker/kv_worker_commandline.h"

#include <unistd.h>

#include <cstdio>
#include <limits>
#include <vector>

#include "logging/log-helper.h"
#include "process_fixture.h"
#include "worker/kv_worker_commandline_options.h"

namespace {

class commandline : public process_fixture {
 protected:
  commandline() {
    // As main leaves them; the fixture's broker is not one of the command line.
    kv_amqp_config_free(&config->amqp);
    config->amqp = kv_amqp_config_new();
  }

  // Parses the required options and these behind them.
  int parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--basedir", "/base", "--broker", "amqps://h:1"});
    return parse_only(std::move(arguments));
  }
  int parse_only(std::vector<std::string> arguments) {
    words_ = std::move(arguments);
    words_.insert(words_.begin(), "kv-av-activecontent");
    argv_.clear();
    for (std::string& word : words_) {
      argv_.push_back(word.data());
    }
    argv_.push_back(nullptr);
    testing::internal::CaptureStderr();
    const int rc =
        kv_worker_parse_commandline(static_cast<int>(words_.size()), argv_.data(), config.get());
    standard_error = testing::internal::GetCapturedStderr();
    return rc;
  }

  std::string standard_error;

 private:
  std::vector<std::string> words_;
  std::vector<char*> argv_;
};

TEST_F(commandline, the_table_has_the_options_in_their_order) {
  struct row {
    const char* name;
    char letter;
    bool takes_value;
  };
  const std::vector<row> expected{{"basedir", 'a', true},
                                  {"tempdir", 'b', true},
                                  {"work-directory", 'c', true},
                                  {"primary", 'd', false},
                                  {"broker", 'e', true},
                                  {"worker-threads", 'g', true},
                                  {"control-connection-timeout", 'h', true},
                                  {"autoscale", 'i', false},
                                  {"autoscale-monitoring-period", 'j', true},
                                  {"autoscale-high-water-mark", 'k', true},
                                  {"autoscale-low-water-mark", 'l', true},
                                  {"tracelevel", 'm', true},
                                  {"tracefile", 'n', true},
                                  {"tracefile-maxsize", 'E', true},
                                  {"trace-to-screen", 'o', false},
                                  {"update-server", 'p', true},
                                  {"update-engine", 'q', false},
                                  {"update-data", 'r', false},
                                  {"update-binary", 's', false},
                                  {"http-proxy", 't', true},
                                  {"update-check-interval", 'v', true},
                                  {"update-max-backups", 'w', true},
                                  {"console-mode", 'x', false},
                                  {"broker-user", 'y', true},
                                  {"broker-password", 'z', true},
                                  {"broker-cert", 'A', true},
                                  {"signal_when_ready", 'B', true},
                                  {"shutdown_when_ready", 'C', true},
                                  {"secret", 'D', true},
                                  {"config-file", 'F', true},
                                  {"debug", 'G', false},
                                  {"register-interval", 'H', true},
                                  {"quarantine_base_path", 'I', true},
                                  {"quarantine_service_key", 'J', true},
                                  {"no_certificate_check", 'K', false},
                                  {"useSharedMemoryforRecursion", 'L', false},
                                  {"amqp-over-http", 'S', false}};
  ASSERT_EQ(expected.size(), kv_options::kRules.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_STREQ(kv_options::kRules[i].name, expected[i].name);
    EXPECT_EQ(kv_options::kRules[i].letter, expected[i].letter);
    EXPECT_EQ(kv_options::kRules[i].argument == required_argument, expected[i].takes_value);
  }
  EXPECT_STREQ(kv_options::kShortOptions,
               "a:b:c:de:g:h:ij:k:l:m:n:op:qrst:v:w:xy:z:A:B:C:D:E:F:GH:I:J:KL");
}

TEST_F(commandline, without_options_the_defaults_stay) {
  ASSERT_EQ(parse({}), 0);
  EXPECT_STREQ(config->basedir, "/base");
  EXPECT_EQ(config->tempdir, nullptr);
  EXPECT_EQ(config->work_directory, nullptr);
  EXPECT_EQ(config->primary, 0);
  EXPECT_EQ(config->amqp_over_http, 0);
  EXPECT_EQ(config->worker_threads, 50);
  EXPECT_EQ(config->control_connection_timeout, 10);
  EXPECT_EQ(config->autoscale, 0);
  EXPECT_EQ(config->autoscale_monitoring_period, 60);
  EXPECT_EQ(config->autoscale_high_water_mark, 75);
  EXPECT_EQ(config->autoscale_low_water_mark, 10);
  EXPECT_EQ(config->register_interval, 5);
  EXPECT_EQ(config->trace_level, 0);
  EXPECT_EQ(config->trace_file, nullptr);
  EXPECT_EQ(config->trace_file_maxsize, 0);
  EXPECT_EQ(config->trace_to_screen, 0);
  EXPECT_EQ(config->use_shm_for_recursion, 0);
  EXPECT_EQ(config->console_mode, 0);
  EXPECT_EQ(config->signal_when_ready, nullptr);
  EXPECT_EQ(config->shutdown_when_ready, nullptr);
  EXPECT_EQ(config->secret, nullptr);
  EXPECT_EQ(config->activation_secret, nullptr);
  EXPECT_EQ(config->network->http_proxy, nullptr);
  EXPECT_EQ(config->update->update_server, nullptr);
  EXPECT_NE(config->argv, nullptr);
}

TEST_F(commandline, texts_are_stored_by_both_forms) {
  struct row {
    const char* name;
    const char* letter;
    char*& (*at)(kv_worker_config_t&);
  };
  using kv_options::amqp, kv_options::network, kv_options::own, kv_options::update;
  for (const row& r :
       {row{"--basedir", "-a", own<&kv_worker_config_t::basedir>},
        row{"--tempdir", "-b", own<&kv_worker_config_t::tempdir>},
        row{"--work-directory", "-c", own<&kv_worker_config_t::work_directory>},
        row{"--tracefile", "-n", own<&kv_worker_config_t::trace_file>},
        row{"--update-server", "-p", update<&kv_update_config_t::update_server>},
        row{"--http-proxy", "-t", network<&kv_worker_network_config_t::http_proxy>},
        row{"--broker-user", "-y", amqp<&kv_amqp_config::broker_user>},
        row{"--broker-password", "-z", amqp<&kv_amqp_config::broker_password>},
        row{"--broker-cert", "-A", amqp<&kv_amqp_config::cert_path>},
        row{"--signal_when_ready", "-B", own<&kv_worker_config_t::signal_when_ready>},
        row{"--shutdown_when_ready", "-C", own<&kv_worker_config_t::shutdown_when_ready>},
        row{"--secret", "-D", own<&kv_worker_config_t::secret>}}) {
    ASSERT_EQ(parse({r.name, "one"}), 0) << r.name;
    EXPECT_STREQ(r.at(*config), "one") << r.name;
    ASSERT_EQ(parse({r.letter, "two"}), 0) << r.letter;
    EXPECT_STREQ(r.at(*config), "two") << r.letter;
  }
}

TEST_F(commandline, flags_are_set_by_both_forms) {
  struct row {
    const char* name;
    const char* letter;
    std::uint8_t& (*at)(kv_worker_config_t&);
  };
  using kv_options::own, kv_options::update;
  for (const row& r :
       {row{"--primary", "-d", own<&kv_worker_config_t::primary>},
        row{"--autoscale", "-i", own<&kv_worker_config_t::autoscale>},
        row{"--trace-to-screen", "-o", own<&kv_worker_config_t::trace_to_screen>},
        row{"--update-engine", "-q", update<&kv_update_config_t::update_engine>},
        row{"--update-data", "-r", update<&kv_update_config_t::update_data>},
        row{"--update-binary", "-s", update<&kv_update_config_t::update_binary>},
        row{"--console-mode", "-x", own<&kv_worker_config_t::console_mode>},
        row{"--no_certificate_check", "-K", update<&kv_update_config_t::no_certificate_check>},
        row{"--useSharedMemoryforRecursion", "-L",
            own<&kv_worker_config_t::use_shm_for_recursion>}}) {
    for (const char* form : {r.name, r.letter}) {
      r.at(*config) = 0;
      ASSERT_EQ(parse({form}), 0) << form;
      EXPECT_EQ(r.at(*config), 1) << form;
      r.at(*config) = 0;
    }
  }
}

TEST_F(commandline, numbers_outside_their_range_leave_the_default) {
  struct row {
    const char* name;
    std::int32_t& (*at)(kv_worker_config_t&);
    const char* text;
    std::int32_t value;
  };
  using kv_options::own, kv_options::update;
  constexpr auto threads = own<&kv_worker_config_t::worker_threads>;
  constexpr auto timeout = own<&kv_worker_config_t::control_connection_timeout>;
  constexpr auto period = own<&kv_worker_config_t::autoscale_monitoring_period>;
  constexpr auto high = own<&kv_worker_config_t::autoscale_high_water_mark>;
  constexpr auto low = own<&kv_worker_config_t::autoscale_low_water_mark>;
  constexpr auto level = own<&kv_worker_config_t::trace_level>;
  constexpr auto interval = own<&kv_worker_config_t::register_interval>;
  constexpr auto check = update<&kv_update_config_t::check_interval>;
  constexpr auto backups = update<&kv_update_config_t::max_backups>;
  for (const row& r : {row{"-g", threads, "0", 0},
                       row{"--worker-threads", threads, "-3", -3},
                       row{"--worker-threads", threads, "100000", 100000},
                       row{"--worker-threads", threads, "2147483648", 50},
                       row{"--worker-threads", threads, "word", 0},
                       row{"--worker-threads", threads, "7x", 7},
                       row{"--control-connection-timeout", timeout, "0", 10},
                       row{"--control-connection-timeout", timeout, "1", 1},
                       row{"-h", timeout, "59", 59},
                       row{"--control-connection-timeout", timeout, "60", 10},
                       row{"--autoscale-monitoring-period", period, "1", 60},
                       row{"--autoscale-monitoring-period", period, "2", 2},
                       row{"-j", period, "119", 119},
                       row{"--autoscale-monitoring-period", period, "120", 60},
                       row{"--autoscale-high-water-mark", high, "1", 75},
                       row{"--autoscale-high-water-mark", high, "2", 2},
                       row{"-k", high, "99", 99},
                       row{"--autoscale-high-water-mark", high, "100", 75},
                       row{"--autoscale-low-water-mark", low, "5", 10},
                       row{"--autoscale-low-water-mark", low, "6", 6},
                       row{"-l", low, "99", 99},
                       row{"--autoscale-low-water-mark", low, "100", 10},
                       row{"--tracelevel", level, "-1", 0},
                       row{"--tracelevel", level, "0", 0},
                       row{"-m", level, "6", 6},
                       row{"--tracelevel", level, "7", 0},
                       row{"--register-interval", interval, "-7", -7},
                       row{"-H", interval, "3600", 3600},
                       row{"--update-check-interval", check, "-1", -1},
                       row{"-v", check, "10", 10},
                       row{"--update-max-backups", backups, "-1", -1},
                       row{"-w", backups, "3", 3}}) {
    const std::int32_t before = r.at(*config);
    ASSERT_EQ(parse({r.name, r.text}), 0) << r.name << r.text;
    EXPECT_EQ(r.at(*config), r.value) << r.name << " " << r.text;
    r.at(*config) = before;
  }
}

TEST_F(commandline, the_trace_size_is_a_64_bit_number) {
  struct row {
    const char* text;
    std::int64_t value;
  };
  for (const row& r :
       {row{"0", 0}, row{"12", 12}, row{"5000000000", 5000000000},
        row{"9223372036854775807", std::numeric_limits<std::int64_t>::max()}, row{"-1", 0}}) {
    config->trace_file_maxsize = 0;
    ASSERT_EQ(parse({"--tracefile-maxsize", r.text}), 0);
    EXPECT_EQ(config->trace_file_maxsize, r.value) << r.text;
    config->trace_file_maxsize = 0;
    ASSERT_EQ(parse({"-E", r.text}), 0);
    EXPECT_EQ(config->trace_file_maxsize, r.value) << r.text;
  }
}

TEST_F(commandline, a_number_that_overflows_fails_the_parse) {
  for (const char* name : {"--worker-threads", "--tracelevel", "--tracefile-maxsize",
                           "--register-interval", "--update-check-interval"}) {
    EXPECT_EQ(parse({name, "99999999999999999999"}), -1) << name;
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to convert optarg to int: Numerical result out of range"),
            5);
}

TEST_F(commandline, the_broker_is_split_into_host_and_port) {
  struct row {
    const char* url;
    const char* host;
    const char* port;
    int plain;
  };
  for (const row& r : {row{"amqps://broker.example:5671", "broker.example", "5671", 0},
                       row{"amqps://broker.example", "broker.example", "5672", 0},
                       row{"amqp://broker.example:1/x", "broker.example", "1", 1},
                       row{"AMQP://broker.example:1", "broker.example", "1", 0},
                       row{"broker.example:77", "broker.example", "77", 0}}) {
    ASSERT_EQ(parse({"--broker", r.url}), 0) << r.url;
    EXPECT_STREQ(config->amqp->broker_host, r.host) << r.url;
    EXPECT_STREQ(config->amqp->broker_port, r.port) << r.url;
    EXPECT_EQ(config->amqp->plain_tcp, r.plain) << r.url;
  }
}

TEST_F(commandline, a_certificate_makes_it_tls_wherever_it_stands) {
  ASSERT_EQ(parse({"--broker-cert", "/ca.pem", "--broker", "amqp://h:1"}), 0);
  EXPECT_EQ(config->amqp->plain_tcp, 0);
  ASSERT_EQ(parse({"--broker", "amqp://h:1", "--broker-cert", "/ca.pem"}), 0);
  EXPECT_EQ(config->amqp->plain_tcp, 0);
}

TEST_F(commandline, a_broker_without_a_host_fails_the_parse) {
  EXPECT_EQ(parse({"--broker", "amqps://"}), -1);
  EXPECT_EQ(trace.count("ERROR", "Failed to store broker endpoint"), 1);
}

TEST_F(commandline, basedir_and_broker_are_required_and_named) {
  EXPECT_EQ(parse_only({"--broker", "amqps://h:1"}), -1);
  EXPECT_NE(standard_error.find("basedir"), std::string::npos);
  EXPECT_EQ(standard_error.find("broker"), std::string::npos);
  kv_worker_config_t& record = *config;
  EXPECT_TRUE(kv_worker_store_text(record.amqp->broker_host, nullptr));
  EXPECT_EQ(parse_only({"--basedir", "/b"}), -1);
  EXPECT_NE(standard_error.find("broker"), std::string::npos);
  EXPECT_EQ(standard_error.find("basedir"), std::string::npos);
  EXPECT_EQ(parse_only({"--basedir", "", "--broker", "amqps://h:1"}), -1);
  EXPECT_NE(standard_error.find("basedir"), std::string::npos);
}

TEST_F(commandline, unknown_options_fail_the_parse) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--lifespan", "10"},
                                                    {"--lifespan=10"},
                                                    {"-S"},
                                                    {"-f"},
                                                    {"-u"},
                                                    {"-Z"},
                                                    {"-1"},
                                                    {"--basedir"},
                                                    {"-a"}}) {
    EXPECT_EQ(parse(arguments), -1) << arguments[0];
  }
  EXPECT_EQ(trace.count("ERROR", "Unknown option \"- ?\""), 9);
}

TEST_F(commandline, amqp_over_http_has_a_long_form_only) {
  ASSERT_EQ(parse({"--amqp-over-http"}), 0);
  EXPECT_EQ(config->amqp_over_http, 1);
  config->amqp_over_http = 0;
  EXPECT_EQ(parse({"-S"}), -1);
  EXPECT_EQ(config->amqp_over_http, 0);
}

TEST_F(commandline, ignored_options_change_nothing) {
  ASSERT_EQ(parse({"--config-file", "/nowhere", "--quarantine_base_path", "/q",
                   "--quarantine_service_key", "k", "-F", "x", "-I", "y", "-J", ""}),
            0);
  EXPECT_EQ(config->worker_threads, 50);
  EXPECT_STREQ(config->basedir, "/base");
  EXPECT_EQ(config->tempdir, nullptr);
  EXPECT_EQ(config->work_directory, nullptr);
}

TEST_F(commandline, the_last_of_repeated_options_counts) {
  ASSERT_EQ(parse({"--secret", "one", "--secret", "two"}), 0);
  EXPECT_STREQ(config->secret, "two");
}

TEST_F(commandline, a_ready_target_is_announced) {
  ASSERT_EQ(parse({"--signal_when_ready", "worker_h_1"}), 0);
  EXPECT_EQ(trace.count("INFO", "Signaling READY to \"worker_h_1\""), 1);
}

TEST_F(commandline, the_screen_trace_is_switched_on_at_once) {
  testing::internal::CaptureStderr();
  KV_LOG_ERROR("before the option");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(parse({"--trace-to-screen", "--lifespan"}), -1);
  EXPECT_NE(standard_error.find("Unknown option \"- ?\""), std::string::npos);
}

TEST_F(commandline, debug_waits_for_a_character) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "\n", 1), 1);
  const int standard_input = dup(STDIN_FILENO);
  dup2(ends[0], STDIN_FILENO);
  testing::internal::CaptureStdout();
  EXPECT_EQ(parse({"--debug"}), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "PID: " + std::to_string(getpid()) + "\nPress ENTER to continue...");
  dup2(standard_input, STDIN_FILENO);
  for (const int descriptor : {ends[0], ends[1], standard_input}) {
    close(descriptor);
  }
  clearerr(stdin);
}

}  // namespace
