#include "worker/kv_worker_config.h"

#include <sys/stat.h>
#include <unistd.h>

#include "process_fixture.h"
#include "worker/kv_worker_names.h"

namespace {

TEST(worker_config, records_start_zero_filled_with_the_defaults) {
  kv_worker_config_ptr config{kv_worker_config_new()};
  EXPECT_EQ(config->amqp, nullptr);
  EXPECT_EQ(config->update, nullptr);
  EXPECT_EQ(config->log_dispatcher, nullptr);
  EXPECT_EQ(config->argv, nullptr);
  kv_update_thread_args_t* args = kv_update_thread_args_new();
  EXPECT_EQ(args->reserved, 0U);
  EXPECT_EQ(args->target_status, 2);
  EXPECT_EQ(args->update_state, 0);
  EXPECT_EQ(args->new_version, nullptr);
  kv_update_thread_args_free(&args);
  EXPECT_EQ(args, nullptr);
  kv_update_thread_args_free(&args);
}

TEST(worker_config, free_clears_the_callers_pointer_and_takes_null) {
  kv_worker_config_t* config = kv_worker_config_new();
  config->basedir = strdup("/b");
  config->update = kv_update_config_new();
  config->update->update_server = strdup("u");
  config->network = kv_worker_network_config_new();
  config->network->http_proxy = strdup("p");
  config->update_thread = kv_update_thread_args_new();
  config->update_thread->shutdown_target = strdup("t");
  kv_worker_config_free(&config);
  EXPECT_EQ(config, nullptr);
  kv_worker_config_free(&config);
  kv_worker_thread_args_t* args = nullptr;
  kv_worker_thread_args_free(&args);
}

TEST(worker_config, store_text_replaces_and_clears) {
  char* text = nullptr;
  EXPECT_TRUE(kv_worker_store_text(text, "one"));
  EXPECT_TRUE(kv_worker_store_text(text, "two"));
  EXPECT_STREQ(text, "two");
  EXPECT_TRUE(kv_worker_store_text(text, nullptr));
  EXPECT_EQ(text, nullptr);
}

TEST(worker_names, paths_stand_below_the_base_directory) {
  EXPECT_EQ(kv_worker_directory("/opt/kv"), "/opt/kv/kv-av-activecontent");
  EXPECT_EQ(kv_worker_version_file("/opt/kv"), "/opt/kv/kv-av-activecontent/.running_version");
  EXPECT_EQ(kv_worker_lock_file("/opt/kv"), "/opt/kv/kv-av-activecontent/.update.lock");
}

TEST(worker_names, the_version_text_is_exact) {
  EXPECT_EQ(kv_worker_version_text(),
            "korvane Anti-Virus 4.0.3 Build 125\r\nkv-av-activecontent v.1.45\n ");
}

TEST(worker_names, the_worker_name_holds_host_and_process) {
  char host[256] = "";
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  EXPECT_EQ(kv_worker_name(),
            "kv-av-activecontent_" + std::string(host) + "_" + std::to_string(getpid()));
}

TEST(worker_names, the_role_follows_the_options) {
  kv_worker_config_ptr config{kv_worker_config_new()};
  EXPECT_STREQ(kv_worker_role_suffix(*config), "");
  config->primary = 1;
  EXPECT_STREQ(kv_worker_role_suffix(*config), " (Primary)");
  config->signal_when_ready = strdup("a");
  EXPECT_STREQ(kv_worker_role_suffix(*config), " (Temporary)");
}

}  // namespace
