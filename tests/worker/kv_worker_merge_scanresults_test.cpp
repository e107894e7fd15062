#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

struct row {
  std::string name;
  std::int32_t code = 0;
  std::uint64_t size = 0;
  std::string mime = "";
  std::string reason = "";
  std::int32_t object_type = -1;
};

kv_file_scan_result_ptr make_file(const row& r) {
  kv_file_scan_result_ptr file{kv_worker_new_file_scan_result()};
  file->return_code = r.code;
  file->file_name = strdup(r.name.c_str());
  file->file_size = r.size;
  file->mime_type = strdup(r.mime.c_str());
  file->blocking_reason = strdup(r.reason.c_str());
  file->object_type = r.object_type;
  return file;
}

kv_scan_result_ptr make_result(const std::vector<row>& rows) {
  kv_scan_result_ptr result{kv_worker_new_scan_result()};
  for (const row& r : rows) {
    EXPECT_EQ(kv_worker_add_file_scan_result(result.get(), make_file(r).get()), 0);
  }
  return result;
}

void merge(const kv_scan_result_ptr& into, const std::vector<row>& rows) {
  ASSERT_EQ(kv_worker_merge_scanresults(into.get(), make_result(rows).get()), 0);
}

}  // namespace

TEST(merge_scanresults, AppendsRowsOfNewNames) {
  const trace_capture trace;
  const kv_scan_result_ptr into = make_result({{"a"}});
  merge(into, {{"b", -202, 7, "text/html", "bad"}, {"A"}});
  ASSERT_EQ(into->file_count, 3);
  EXPECT_STREQ(into->files[1]->file_name, "b");
  EXPECT_EQ(into->files[1]->return_code, -202);
  EXPECT_EQ(into->files[1]->file_size, 7u);
  EXPECT_STREQ(into->files[1]->mime_type, "text/html");
  EXPECT_STREQ(into->files[1]->blocking_reason, "bad");
  EXPECT_STREQ(into->files[2]->file_name, "A") << "names are compared with case";
  EXPECT_EQ(trace.count("Adding new file entry for b"), 1);
  EXPECT_EQ(trace.count("Latest scan produced 2 results"), 1);
  EXPECT_EQ(trace.count("Unlocked mutex for result consolidation"), 1);
}

TEST(merge_scanresults, TheWorseCodeWins) {
  for (const auto& [old_code, new_code, kept] :
       {std::tuple{0, -202, -202}, {-202, 0, -202}, {-100, -200, -200}, {-1000, -202, -1000}}) {
    const kv_scan_result_ptr into = make_result({{"a", old_code}});
    merge(into, {{"a", new_code}});
    ASSERT_EQ(into->file_count, 1);
    EXPECT_EQ(into->files[0]->return_code, kept);
  }
}

TEST(merge_scanresults, TakesTheSizeOnlyWhereNoneIsKnown) {
  const kv_scan_result_ptr into = make_result({{"a", 0, 0}, {"b", 0, 5}});
  merge(into, {{"a", 0, 9}, {"b", 0, 9}});
  EXPECT_EQ(into->files[0]->file_size, 9u);
  EXPECT_EQ(into->files[1]->file_size, 5u);
}

TEST(merge_scanresults, NeverReplacesATextThatIsThere) {
  const kv_scan_result_ptr into = make_result({{"a", 0, 0, "", ""}, {"b", 0, 0, "old", "older"}});
  merge(into, {{"a", 0, 0, "new", "newer"}, {"b", 0, 0, "new", "newer"}});
  EXPECT_STREQ(into->files[0]->mime_type, "new");
  EXPECT_STREQ(into->files[0]->blocking_reason, "newer");
  EXPECT_STREQ(into->files[1]->mime_type, "old");
  EXPECT_STREQ(into->files[1]->blocking_reason, "older");
}

TEST(merge_scanresults, FillsATextThatIsMissingAltogether) {
  const kv_scan_result_ptr into = make_result({{"a"}});
  free(into->files[0]->error);
  into->files[0]->error = nullptr;
  kv_file_scan_result_ptr file = make_file({"a"});
  file->error = strdup("why");
  const kv_scan_result_ptr latest{kv_worker_new_scan_result()};
  ASSERT_EQ(kv_worker_add_file_scan_result(latest.get(), file.get()), 0);
  ASSERT_EQ(kv_worker_merge_scanresults(into.get(), latest.get()), 0);
  EXPECT_STREQ(into->files[0]->error, "why");
}

TEST(merge_scanresults, TakesTheObjectTypeOnlyInPlaceOfZero) {
  const kv_scan_result_ptr into = make_result(
      {{"zero", 0, 0, "", "", 0}, {"unknown", 0, 0, "", "", -1}, {"set", 0, 0, "", "", 3}});
  merge(into, {{"zero", 0, 0, "", "", 8}, {"unknown", 0, 0, "", "", 8}, {"set", 0, 0, "", "", 8}});
  EXPECT_EQ(into->files[0]->object_type, 8);
  EXPECT_EQ(into->files[1]->object_type, -1);
  EXPECT_EQ(into->files[2]->object_type, 3);
}

TEST(merge_scanresults, TheFirstOfEqualNamesIsUpdated) {
  const trace_capture trace;
  const kv_scan_result_ptr into = make_result({{"x"}, {"a"}, {"a"}});
  merge(into, {{"a", -100}});
  EXPECT_EQ(into->files[1]->return_code, -100);
  EXPECT_EQ(into->files[2]->return_code, 0);
  EXPECT_EQ(trace.count("Consolidated entry for \"a\" exists at index 1"), 1);
  EXPECT_EQ(trace.count("Updating consolidated entry of \"a\""), 1);
}

TEST(merge_scanresults, ARowAddedByAMergeIsFoundByItsNextRows) {
  const kv_scan_result_ptr into = make_result({});
  merge(into, {{"a", 0}, {"a", -202}});
  ASSERT_EQ(into->file_count, 1);
  EXPECT_EQ(into->files[0]->return_code, -202);
}

// As a page with very many children merges them. A search through all rows would take minutes.
TEST(merge_scanresults, ManyMergesFindEveryRow) {
  constexpr int kMerges = 50000;
  const kv_scan_result_ptr into = make_result({{"page"}});
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < kMerges; ++i) {
      merge(into, {{"page/data-url-" + std::to_string(i), -round}});
    }
    ASSERT_EQ(into->file_count, kMerges + 1);
    for (int i = 1; i <= kMerges; ++i) {
      ASSERT_EQ(into->files[i]->file_name, "page/data-url-" + std::to_string(i - 1));
      ASSERT_EQ(into->files[i]->return_code, -round);
    }
  }
}

TEST(merge_scanresults, RowsAddedWithoutAMergeAreFound) {
  const kv_scan_result_ptr into = make_result({{"a"}});
  merge(into, {{"b"}});
  ASSERT_EQ(kv_worker_add_file_scan_result(into.get(), make_file({"c"}).get()), 0);
  merge(into, {{"c", -202}, {"b", -201}});
  ASSERT_EQ(into->file_count, 3);
  EXPECT_EQ(into->files[1]->return_code, -201);
  EXPECT_EQ(into->files[2]->return_code, -202);
}

TEST(merge_scanresults, RowsWithoutANameArePassedOver) {
  const kv_scan_result_ptr into = make_result({{"a"}});
  free(into->files[0]->file_name);
  into->files[0]->file_name = nullptr;
  merge(into, {{"", -202}});
  ASSERT_EQ(into->file_count, 2);
  EXPECT_EQ(into->files[0]->return_code, 0);
}

TEST(merge_scanresults, RefusesAMissingConsolidatedResult) {
  const trace_capture trace;
  EXPECT_EQ(kv_worker_merge_scanresults(nullptr, make_result({}).get()), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid pointer consolidated"), 1);
}

TEST(merge_scanresults, ThreadsMergeIntoOneResult) {
  const kv_scan_result_ptr into = make_result({});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&into, t] {
      for (int i = 0; i < 50; ++i) {
        merge(into, {{"own" + std::to_string(t * 50 + i)}, {"shared" + std::to_string(i)}});
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(into->file_count, 4 * 50 + 50);
}
