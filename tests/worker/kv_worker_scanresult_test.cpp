#include <gtest/gtest.h>

#include <cstring>

#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

kv_file_scan_result_ptr full_row() {
  kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  row->return_code = -202;
  row->file_name = strdup("a.zip/x");
  row->file_size = 18'000'000'000'000'000'000U;
  row->mime_type = strdup("text/html");
  row->mime_encoding = strdup("utf-8");
  row->file_type = strdup("HTML");
  row->extension = strdup(".html");
  row->blocking_reason = strdup("reason");
  row->error = strdup("error");
  row->object_type = 3;
  return row;
}

TEST(FileScanResult, NewRowIsUnknownAndClean) {
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  ASSERT_TRUE(row);
  EXPECT_EQ(row->return_code, 0);
  EXPECT_EQ(row->object_type, -1);
  EXPECT_EQ(row->file_size, 0U);
  EXPECT_EQ(row->blocking_reason, nullptr);
}

TEST(ScanResult, NewResultIsEmptyAndItsMutexWorks) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  ASSERT_TRUE(result);
  EXPECT_EQ(result->return_code, 0);
  EXPECT_EQ(result->file_count, 0);
  EXPECT_EQ(result->reasons, nullptr);
  EXPECT_EQ(pthread_mutex_lock(&result->mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&result->mutex), 0);
}

TEST(ScanResult, FreeTakesEverythingAndClearsThePointer) {
  kv_scan_result_t* result = kv_worker_new_scan_result();
  result->reasons = strdup("r");
  result->error = strdup("e");
  result->buffer = malloc(16);
  ASSERT_EQ(kv_worker_add_file_scan_result(result, full_row().get()), 0);
  kv_worker_free_scan_result(&result);
  EXPECT_EQ(result, nullptr);
  kv_worker_free_scan_result(&result);
  kv_worker_free_scan_result(nullptr);
  kv_file_scan_result_t* row = full_row().release();
  kv_worker_free_file_scan_result(&row);
  EXPECT_EQ(row, nullptr);
  kv_worker_free_file_scan_result(nullptr);
}

TEST(AddFileScanResult, CopiesEveryFieldDeeply) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  const kv_file_scan_result_ptr row = full_row();
  ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
  ASSERT_EQ(result->file_count, 1);
  const kv_file_scan_result_t& copy = *result->files[0];
  EXPECT_EQ(copy.return_code, row->return_code);
  EXPECT_EQ(copy.file_size, row->file_size);
  EXPECT_EQ(copy.object_type, row->object_type);
  const char* const copies[]{copy.file_name, copy.mime_type, copy.mime_encoding,
                             copy.file_type, copy.extension, copy.blocking_reason,
                             copy.error};
  const char* const originals[]{row->file_name, row->mime_type, row->mime_encoding,
                                row->file_type, row->extension, row->blocking_reason,
                                row->error};
  for (std::size_t i = 0; i < std::size(copies); ++i) {
    EXPECT_STREQ(copies[i], originals[i]);
    EXPECT_NE(copies[i], originals[i]);
  }
}

TEST(AddFileScanResult, AbsentTextsBecomeEmptyOnes) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
  const kv_file_scan_result_t& copy = *result->files[0];
  for (const char* text : {copy.file_name, copy.mime_type, copy.mime_encoding, copy.file_type,
                           copy.extension, copy.blocking_reason, copy.error}) {
    EXPECT_STREQ(text, "");
  }
}

TEST(AddFileScanResult, KeepsTheOrderOfMany) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  for (std::int32_t i = 0; i < 1000; ++i) {
    row->object_type = i;
    ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
  }
  ASSERT_EQ(result->file_count, 1000);
  for (std::int32_t i = 0; i < 1000; ++i) {
    ASSERT_EQ(result->files[i]->object_type, i);
  }
}

TEST(AddFileScanResult, NullIsRefused) {
  const trace_capture trace;
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  EXPECT_EQ(kv_worker_add_file_scan_result(nullptr, full_row().get()), -1);
  EXPECT_EQ(kv_worker_add_file_scan_result(result.get(), nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "got NULL pointer"), 2);
  EXPECT_EQ(result->file_count, 0);
}

}  // namespace
