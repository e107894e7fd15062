#include "worker/kv_worker_load.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "worker/kv_worker.h"
#include "worker/kv_worker_threads.h"

namespace {

class worker_load : public testing::Test {
 protected:
  worker_load() : threads(zlist_new()) {}
  ~worker_load() override { zlist_destroy(&threads); }

  void set_threads(int all, int busy) {
    zlist_purge(threads);
    records.clear();
    for (int i = 0; i < all; ++i) {
      records.emplace_back(kv_worker_thread_parameters_new());
      records.back()->current_status = i < busy ? KV_THREAD_BUSY : KV_THREAD_IDLE;
      zlist_append(threads, records.back().get());
    }
  }
  std::int32_t load(std::vector<std::int32_t>& samples) {
    return kvworker_get_load(threads, static_cast<std::int32_t>(samples.size()), samples.data());
  }

  zlist_t* threads;
  std::vector<kv_worker_thread_parameters_ptr> records;
};

TEST_F(worker_load, samples_start_as_none) {
  std::vector<std::int32_t> samples{7, 8, 9};
  kvctrl_initialize_load_sample_array(samples.data(), 2);
  EXPECT_EQ(samples, (std::vector<std::int32_t>{-1, -1, 9}));
  kvctrl_initialize_load_sample_array(samples.data(), -1);
  EXPECT_EQ(samples[2], 9);
}

TEST_F(worker_load, a_sample_is_the_truncated_percentage_of_busy_threads) {
  struct row {
    int all, busy, sample;
  };
  for (const row& r : {row{4, 3, 75}, row{3, 1, 33}, row{3, 2, 66}, row{1, 1, 100}, row{5, 0, 0},
                       row{50, 37, 74}}) {
    set_threads(r.all, r.busy);
    std::vector<std::int32_t> samples{-1};
    EXPECT_EQ(load(samples), r.sample) << r.busy << " of " << r.all;
    EXPECT_EQ(samples[0], r.sample);
  }
}

TEST_F(worker_load, only_the_busy_status_counts) {
  set_threads(3, 0);
  records[0]->current_status = KV_THREAD_STARTING;
  records[1]->current_status = KV_THREAD_HELD;
  std::vector<std::int32_t> samples{-1};
  EXPECT_EQ(load(samples), 0);
}

TEST_F(worker_load, no_average_before_the_array_is_full) {
  set_threads(4, 2);
  std::vector<std::int32_t> samples(6, -1);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(load(samples), -1) << i;
  }
  EXPECT_EQ(load(samples), 50);
}

TEST_F(worker_load, the_average_slides_and_truncates) {
  std::vector<std::int32_t> samples{10, 20, 30};
  set_threads(3, 1);
  EXPECT_EQ(load(samples), (20 + 30 + 33) / 3);
  EXPECT_EQ(samples, (std::vector<std::int32_t>{20, 30, 33}));
}

TEST_F(worker_load, the_first_entry_leaves_whatever_it_held) {
  std::vector<std::int32_t> samples{-1, 40, 60};
  set_threads(2, 1);
  EXPECT_EQ(load(samples), 50);
}

TEST_F(worker_load, an_empty_entry_in_the_middle_means_no_average) {
  std::vector<std::int32_t> samples{10, -1, 60};
  set_threads(2, 1);
  EXPECT_EQ(load(samples), -1);
  EXPECT_EQ(samples, (std::vector<std::int32_t>{-1, 60, 50}));
}

TEST_F(worker_load, without_threads_no_sample_is_taken) {
  std::vector<std::int32_t> samples{10, 20};
  EXPECT_EQ(load(samples), -1);
  EXPECT_EQ(samples, (std::vector<std::int32_t>{10, 20}));
}

TEST_F(worker_load, a_count_below_one_touches_nothing) {
  set_threads(2, 1);
  std::int32_t sample = 5;
  EXPECT_EQ(kvworker_get_load(threads, 0, &sample), -1);
  EXPECT_EQ(sample, 5);
}

}  // namespace
