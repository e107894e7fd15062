#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/literal_summary.h"
#include "support/trace_capture.h"
#include "worker/kv_worker_scan_types.h"

namespace {

void add(const kv_scan_result_ptr& result, const char* name, std::int32_t code,
         const char* reason = nullptr, const char* error = nullptr) {
  const kv_file_scan_result_ptr row{kv_worker_new_file_scan_result()};
  row->return_code = code;
  row->file_name = strdup(name);
  row->blocking_reason = reason == nullptr ? nullptr : strdup(reason);
  row->error = error == nullptr ? nullptr : strdup(error);
  ASSERT_EQ(kv_worker_add_file_scan_result(result.get(), row.get()), 0);
}

class ScanSummary : public testing::Test {
 protected:
  void summarise() { ASSERT_EQ(kv_worker_create_scan_results_summary(result.get()), 0); }
  kv_file_scan_result_t& file(int i) { return *result->files[i]; }

  kv_scan_result_ptr result{kv_worker_new_scan_result()};
};

TEST_F(ScanSummary, ChildGivesItsReasonAndCodeToItsParent) {
  add(result, "a.zip", 0);
  add(result, "a.zip/x.docm", -200, "Macro");
  summarise();
  EXPECT_EQ(result->return_code, -200);
  EXPECT_STREQ(result->reasons, "Macro");
  EXPECT_EQ(file(0).return_code, -200);
  EXPECT_STREQ(file(0).blocking_reason, "Macro");
}

TEST_F(ScanSummary, ParentWithoutAnyReasonKeepsItsCode) {
  add(result, "a.zip", 0);
  add(result, "a.zip/x.docm", -200, "Macro");
  free(file(0).blocking_reason);
  file(0).blocking_reason = nullptr;
  summarise();
  EXPECT_EQ(file(0).return_code, 0);
  EXPECT_STREQ(file(0).blocking_reason, "Macro");
  EXPECT_EQ(result->return_code, -200);
}

TEST_F(ScanSummary, BlockedParentKeepsItsReasonAndTakesTheLowerCode) {
  add(result, "a.zip", -200, "Own");
  add(result, "a.zip/x", -202, "Macro");
  summarise();
  EXPECT_STREQ(file(0).blocking_reason, "Own");
  EXPECT_EQ(file(0).return_code, -202);
  EXPECT_STREQ(result->reasons, "Own; Macro");
}

TEST_F(ScanSummary, ParentsCodeIsNotRaised) {
  add(result, "a.zip", -300, "Own");
  add(result, "a.zip/x", -202, "Macro");
  summarise();
  EXPECT_EQ(file(0).return_code, -300);
  EXPECT_EQ(result->return_code, -300);
}

TEST_F(ScanSummary, ParentBehindItsChildBecomesBlockingItself) {
  add(result, "a.zip/x", -202, "Macro", "child");
  add(result, "a.zip", 0, nullptr, "parent");
  summarise();
  EXPECT_EQ(file(1).return_code, -202);
  EXPECT_STREQ(result->reasons, "Macro");
  EXPECT_STREQ(result->error, "parent");
}

TEST_F(ScanSummary, ParentIsAnyNameThatTheOwnOneBeginsWith) {
  add(result, "a.zip", 0);
  add(result, "a.zipper", -202, "Macro");
  add(result, "b", 0);
  summarise();
  EXPECT_EQ(file(0).return_code, -202);
  EXPECT_EQ(file(2).return_code, 0);
  EXPECT_STREQ(file(2).blocking_reason, "");
}

TEST_F(ScanSummary, EqualReasonIsGivenOnce) {
  add(result, "a", -202, "Macro");
  add(result, "b", -202, "Macro");
  add(result, "c", -202, "Other");
  summarise();
  EXPECT_STREQ(result->reasons, "Macro; Other");
}

TEST_F(ScanSummary, ReasonContainedInAnotherIsNotRepeated) {
  add(result, "a", -202, "VBA-Macro");
  add(result, "b", -202, "Macro");
  summarise();
  EXPECT_STREQ(result->reasons, "VBA-Macro");
}

TEST_F(ScanSummary, FirstReasonTextHasNothingBeforeIt) {
  add(result, "a", -100, "");
  add(result, "b", -202, "Macro");
  summarise();
  EXPECT_STREQ(result->reasons, "Macro");
}

struct code_case {
  std::int32_t code;
  bool blocks;
};
class BlockingCode : public testing::TestWithParam<code_case> {};
INSTANTIATE_TEST_SUITE_P(Codes, BlockingCode,
                         testing::Values(code_case{1, false}, code_case{0, false},
                                         code_case{-1, false}, code_case{-99, false},
                                         code_case{-100, true}, code_case{-101, false},
                                         code_case{-198, false}, code_case{-199, true},
                                         code_case{-200, true}, code_case{-202, true},
                                         code_case{-1000, true}));
TEST_P(BlockingCode, DecidesWhetherAFileTakesPart) {
  const kv_scan_result_ptr result{kv_worker_new_scan_result()};
  add(result, "a", GetParam().code, "Reason");
  ASSERT_EQ(kv_worker_create_scan_results_summary(result.get()), 0);
  EXPECT_EQ(result->return_code, GetParam().blocks ? GetParam().code : 0);
  EXPECT_STREQ(result->reasons, GetParam().blocks ? "Reason" : "");
}

TEST_F(ScanSummary, MostCriticalCodeAndItsErrorWin) {
  add(result, "a", -202, "x", "first");
  add(result, "b", -1000, "y", "second");
  add(result, "c", -202, "z", "third");
  add(result, "d", -1000, "", "");
  summarise();
  EXPECT_EQ(result->return_code, -1000);
  EXPECT_STREQ(result->error, "second");
}

TEST_F(ScanSummary, ReasonsAreCutAt4096Bytes) {
  for (int i = 0; i < 8; ++i) {
    add(result, std::to_string(i).c_str(), -202,
        std::string(1023, static_cast<char>('a' + i)).c_str());
  }
  summarise();
  const std::string reasons = result->reasons;
  EXPECT_EQ(reasons.size(), 4096U);
  EXPECT_EQ(reasons.substr(1023, 3), "; b");
}

TEST_F(ScanSummary, NoFileResultsLeaveTheReasonsAsTheyAre) {
  const trace_capture trace;
  summarise();
  EXPECT_EQ(result->reasons, nullptr);
  EXPECT_EQ(trace.count("Returning reasons"), 0);
  result->reasons = strdup("given");
  summarise();
  EXPECT_STREQ(result->reasons, "given");
  EXPECT_EQ(trace.count("DEBUG", "Returning reasons: given"), 1);
}

TEST_F(ScanSummary, CleanFilesGiveEmptyReasons) {
  add(result, "a", 0);
  summarise();
  EXPECT_STREQ(result->reasons, "");
  EXPECT_EQ(result->return_code, 0);
}

TEST(ScanSummaryInput, NullIsRefused) {
  const trace_capture trace;
  EXPECT_EQ(kv_worker_create_scan_results_summary(nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid pointer result"), 1);
}

TEST_F(ScanSummary, StepsAreTraced) {
  add(result, "a.zip", 0);
  add(result, "a.zip/x", -202, "Macro", "broken");
  add(result, "b", -200, "Own");
  add(result, "b/c", -202, "Deep");
  const trace_capture trace;
  summarise();
  EXPECT_EQ(trace.count("TRACE", "Checking parents of file [a.zip/x]"), 1);
  EXPECT_EQ(trace.count("  Parent: [a.zip] "), 3);
  EXPECT_EQ(trace.count("  This:   [a.zip/x]"), 3);
  EXPECT_EQ(trace.count("TRACE", "Is parent"), 2);
  EXPECT_EQ(trace.count("TRACE", "b is not a parent of a.zip/x"), 1);
  EXPECT_EQ(
      trace.count("TRACE", "  Previous rc 0 is less critical than current rc -202, updating rc"),
      1);
  EXPECT_EQ(trace.count("TRACE", "  Already is blocked: Own"), 1);
  EXPECT_EQ(trace.count("TRACE", "Adding blocking reason [Macro] to parent file [a.zip]"), 1);
  EXPECT_EQ(trace.count("TRACE", "Result for a.zip/x is -202, Consolidated rc is 0"), 1);
  EXPECT_EQ(trace.count("TRACE", "adjusted consolidated result to -202"), 2);
  EXPECT_EQ(trace.count("TRACE", "adjusted consolidated error to broken"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Returning reasons: Macro; Own; Deep"), 1);
}

// Random rows over few names, codes and reasons, so that equal names, deep parents, empty and
// missing reasons all meet.
std::vector<literal_row> random_rows(std::mt19937& random) {
  const auto pick = [&](std::size_t n) {
    return std::uniform_int_distribution<std::size_t>{0, n - 1}(random);
  };
  const std::int32_t codes[]{0, -1, -100, -150, -198, -199, -200, -202, -202, -300, -1000};
  const std::string reasons[]{"", "", "Macro", "VBA-Macro", "Script", "o"};
  const std::string errors[]{"", "", "e1", "e2"};
  std::vector<literal_row> rows(pick(14));
  for (literal_row& row : rows) {
    row.code = codes[pick(std::size(codes))];
    for (std::size_t length = pick(6); length > 0; --length) {
      row.name += "ab/"[pick(3)];
    }
    row.has_reason = pick(4) != 0;
    row.reason = row.has_reason ? reasons[pick(std::size(reasons))] : "";
    row.error = errors[pick(std::size(errors))];
  }
  return rows;
}

kv_scan_result_ptr result_of(const std::vector<literal_row>& rows) {
  kv_scan_result_ptr result{kv_worker_new_scan_result()};
  for (const literal_row& row : rows) {
    add(result, row.name.c_str(), row.code, row.reason.c_str(), row.error.c_str());
    if (!row.has_reason) {
      kv_file_scan_result_t& last = *result->files[result->file_count - 1];
      free(last.blocking_reason);
      last.blocking_reason = nullptr;
    }
  }
  return result;
}

void expect_equal(const std::vector<literal_row>& input) {
  const kv_scan_result_ptr result = result_of(input);
  std::vector<literal_row> rows = input;
  const literal_result expected = literal_summary(rows);
  ASSERT_EQ(kv_worker_create_scan_results_summary(result.get()), 0);
  EXPECT_EQ(result->return_code, expected.code);
  EXPECT_EQ(result->error == nullptr ? "" : result->error, expected.error);
  EXPECT_EQ(result->reasons == nullptr ? "" : result->reasons, expected.reasons);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const kv_file_scan_result_t& file = *result->files[i];
    EXPECT_EQ(file.return_code, rows[i].code) << i;
    EXPECT_EQ(file.blocking_reason != nullptr, rows[i].has_reason) << i;
    EXPECT_EQ(file.blocking_reason == nullptr ? "" : file.blocking_reason, rows[i].reason) << i;
  }
}

TEST(ScanSummaryEquality, LinkedParentsAgreeWithEveryPairCompared) {
  std::mt19937 random{20240229};
  for (int round = 0; round < 20'000 && !testing::Test::HasFailure(); ++round) {
    expect_equal(random_rows(random));
  }
}

TEST(ScanSummaryEquality, TracedWalkAgreesToo) {
  const trace_capture trace;
  std::mt19937 random{7};
  for (int round = 0; round < 30 && !testing::Test::HasFailure(); ++round) {
    expect_equal(random_rows(random));
  }
}

}  // namespace
