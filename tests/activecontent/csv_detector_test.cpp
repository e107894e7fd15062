// What the check for formula injection says of whole texts, and what it traces.
#include <gtest/gtest.h>

#include <array>
#include <memory_resource>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/kvactivecontent_csv_internal.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

struct verdict {
  std::int32_t code = 0;
  std::string reason;
  std::string error;
  bool operator==(const verdict&) const = default;
};
std::ostream& operator<<(std::ostream& out, const verdict& v) {
  return out << v.code << " \"" << v.reason << "\" \"" << v.error << "\"";
}
const verdict kClean;

verdict found(const std::string& cell) {
  return {-202, "\"CSV-injection: " + cell + "\" detected", ""};
}

verdict check(std::string_view bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  const auto job = make_job({exact.data(), exact.size()}, {KV_AC_CSV_INJECTION});
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const std::int32_t code = kvactivecontent_csv_command(job.get(), reason.data(), error.data());
  return {code, reason.data(), error.data()};
}

struct cell_case {
  std::string_view bytes;
  const char* cell;  // reported, or null
};

void expect_all(std::initializer_list<cell_case> cases) {
  for (const cell_case& one : cases) {
    EXPECT_EQ(check(one.bytes), one.cell == nullptr ? kClean : found(one.cell)) << one.bytes;
  }
}

TEST(CsvCells, AreFormulasWhenTheyHoldMoreThanANumber) {
  expect_all({{"a,=1+2", "=1+2"},
              {"a,@SUM(A1)", "@SUM(A1)"},
              {"a,+cmd", "+cmd"},
              {"a,-x", "-x"},
              {"a;-5;b", nullptr},
              {"a;+3.14;b", nullptr},
              {"a;-1,000;b", nullptr},  // two cells, as the comma is the preferred delimiter
              {"a|-1.000", nullptr},
              {"a|-1\\5", nullptr},  // within brackets the pattern's backslash is one too
              {"a|-1 5", "-1 5"},
              {"a|-1\xe4", "-1\xe4"},
              {"a|x=1+2", nullptr},
              {"=1+2|b", "=1+2"},
              {"'=1+2'|b|=3+4", "=3+4"}});
}

// With the comma as delimiter its second half begins another cell.
TEST(CsvCells, NumbersWithCommasAreNumbers) {
  trace_capture trace;
  EXPECT_EQ(check("a;-1,000;b\nc;-2;d"), kClean);
  EXPECT_EQ(trace.count("DEBUG", "regex match found only digits"), 2);
}

TEST(CsvCells, WithADoubledLeadingCharacterAreLeftAlone) {
  expect_all({{"a,--x", nullptr},
              {"a,==x", nullptr},
              {"a,++x", nullptr},
              {"a,@@x", nullptr},
              {"a,-=x", "-=x"},
              {"a, --x", nullptr},
              {"a,- -x", "- -x"}});
}

TEST(CsvCells, OfOneByteAreNotTested) {
  trace_capture trace;
  expect_all({{"a,=", nullptr}, {"a,-,b", nullptr}});
  EXPECT_EQ(trace.count("Found Leading"), 0);
  expect_all({{"a,= ", nullptr}, {"a, =", nullptr}});
  EXPECT_EQ(trace.count("DEBUG", "Found Leading \"=\" in cell \"=\""), 2);
}

TEST(CsvCells, AreTrimmedButReportedWhole) {
  expect_all({{"a, =x ", " =x "},
              {"a,\v\f\r =x", "\v\f\r =x"},
              {"a,-5 ", nullptr},
              {"a, -5 \r\n", nullptr},
              {"a,   ", nullptr},
              {"a,\x85=x", nullptr},
              {"a,\xa0=x", nullptr}});
}

TEST(CsvCells, ReachOverLineFeeds) {
  expect_all({{"a,b\n=cmd,c", nullptr},
              {"a,b\n1,=cmd\n2,c", "=cmd\n2"},
              {"a,-5\n1,-6\n", "-5\n1"},
              {"a,\n=cmd,c", "\n=cmd"}});
}

TEST(CsvCells, AreNeverEmpty) {
  expect_all({{",,,=x,", "=x"}, {"=x,,", "=x"}, {",", nullptr}, {"a,,,", nullptr}});
}

TEST(CsvCells, KnowNoQuotes) {
  expect_all({{"a,\"=x\"", nullptr}, {"a,\"b,=x\"", "=x\""}});
}

TEST(CsvCells, EndAtAZeroByteAndSoDoTheTests) {
  expect_all({{"a,-5\0x,b"sv, nullptr},
              {"a,b\0,=x"sv, nullptr},
              {"a,=x\0y"sv, "=x"},
              {"\0a,=x"sv, nullptr}});
}

TEST(CsvCells, OfTabSeparatedTablesEndAtTabs) {
  expect_all({{"a\t=x\tb", "=x"}, {"a\t \t=x", "=x"}, {"a\t\t-5", nullptr}});
}

TEST(CsvCells, AtEveryOffsetAreFound) {
  for (std::size_t filler = 0; filler < 200; ++filler) {
    const std::string blanks(filler, ' ');
    EXPECT_EQ(check("a" + blanks + ",=x,b"), found("=x")) << filler;
    EXPECT_EQ(check("a," + blanks + "=x"), found(blanks + "=x")) << filler;
    EXPECT_EQ(check("a,=x" + blanks), found("=x" + blanks)) << filler;
  }
}

TEST(CsvReason, IsCutToItsBuffer) {
  const std::string cell = "=" + std::string(5000, 'x');
  EXPECT_EQ(check("a," + cell).reason, ("\"CSV-injection: " + cell).substr(0, 1023));
}

TEST(CsvDelimiter, IsTheFirstCandidateOfAOneLineText) {
  expect_all({{"=x", nullptr},
              {"a;b,=x", "=x"},
              {"=1;=2,c", "=1;=2"},
              {"a|=x", "=x"},
              {"a\t=x", "=x"},
              {"a\t=x|b", nullptr},
              {"'a,b'|=x", "=x"}});
  trace_capture trace;
  EXPECT_EQ(check("abc"), kClean);
  EXPECT_EQ(trace.count("DEBUG", "Buffer is one line only"), 1);
  EXPECT_EQ(trace.count("INFO", "CSV validation failed"), 1);
}

TEST(CsvDelimiter, MustCutAllLinesAlike) {
  expect_all({{"a,b,c\n1,=x", nullptr},
              {"a,b\n1,=x", "=x"},
              {"a,b;c\n1;=x", "=x"},
              {"a,b\n1,2,=x", nullptr},
              {"a;b\n1;=x,", "=x,"},
              {"a,b;c\n1,2;=x", nullptr},  // both fit, the comma wins
              {"a,b;c\n1,=2;x", "=2;x"},
              {"a|b\n1|=x", "=x"},
              {"a\tb\n1\t=x", "=x"},
              {"\na,=x", nullptr},
              {"abc\na,=x", nullptr}});
}

TEST(CsvDelimiter, TakesNoNoticeOfLinesBelowTwoBytes) {
  expect_all({{"a,b\nx\n1,=x", "=x"},
              {"a,b\nxy\n1,=x", nullptr},
              {"a,b\r\n\r\n1,=x", "=x"},
              {"a,=x\n", "=x\n"},
              {"a,=x\ny", "=x\ny"},
              {"a,=x\nyz", nullptr},
              {"a,=x\n,", "=x\n"}});
}

TEST(CsvDelimiter, JudgesAnEmptyLineByAllTheRest) {
  expect_all({{"a,b\n\n1,=x", "=x"},
              {"a,b\n\n\n\n1,=x", "=x"},
              {"a,b\n1,2\n\n1,=x", "=x"},
              {"a,=x\n\n", nullptr},
              {"a,=x\n1,2\n\n1,2\n1,2", nullptr},
              {"a,b\n\n1,=x\n\n", nullptr},
              {"a,b,c\n\n1,2,\"=x\n\"3,4", nullptr},
              {"a,b\n\n=x,'\n\n1,'", nullptr}});
}

TEST(CsvDelimiter, IsCountedWithQuotesPerLine) {
  expect_all({{"\"a,b\",c\n1,=x", "=x"},
              {"'a,b',c\n1,=x", "=x"},
              {"\"a\n\",c,=x", nullptr},
              {"a,\"b\n1,=x", "=x"},  // what is open at the end of a line is closed by it
              {"a,b\\,c\n1,=x", "=x"},
              {"a,b\\\n1,=x", "=x"},
              {"it's,b\nit's,=x", nullptr}});
}

TEST(CsvDelimiter, CountsBehindAZeroByteToo) {
  expect_all({{"a,=x\0\n1"sv, "=x"}, {"a,=x\0,"sv, "=x"}, {"a,=x\n1\0,2,3"sv, nullptr}});
}

TEST(CsvDelimiter, TellsOfTheFirstLineThatDiffers) {
  trace_capture trace;
  EXPECT_EQ(check("a,b,c;d\n1,2;3\n1"), kClean);
  EXPECT_EQ(trace.count("DEBUG", "This line has 1 delimiters, previous line had 2 - NOT A CSV"), 1);
  EXPECT_EQ(trace.count("NOT A CSV"), 1);
  EXPECT_EQ(check("a,b,c\n1,2\n"), kClean);
  EXPECT_EQ(check("a,b\n\n1,2\n1,2,3\n4,5"), kClean);
  EXPECT_EQ(trace.count("This line has 4 delimiters, previous line had 1 - NOT A CSV"), 1);
  EXPECT_EQ(trace.count("INFO", "CSV validation failed"), 2);
}

TEST(CsvDelimiters, AreCountedOutsideOfQuotes) {
  struct {
    std::string_view text;
    std::size_t count;
  } constexpr kCases[] = {{"", 0},          {",", 1},          {"a,b,c", 2},
                          {"\"a,b\",c", 1}, {"'a,b',c", 1},    {"\"',\",'\",'", 1},
                          {"\\,,", 1},      {"\\\\,", 1},      {"\\\\\\,", 0},
                          {"\\\",", 1},     {"\"\\\",\",", 1}, {"\\", 0},
                          {"a,\"b,c", 1},   {"\"\",\"\"", 1},  {"\0,"sv, 1},
                          {"'\",',", 1},    {"\"a\nb,\",", 1}};
  for (const auto& one : kCases) {
    EXPECT_EQ(s_CountDelimiters(one.text.data(), one.text.size(), ','), one.count) << one.text;
  }
}

std::string statement(int records, std::string_view end = "/\n") {
  std::string text;
  for (int i = 0; i < records; ++i) {
    text += std::string("01,02,03,98,99,").substr(static_cast<std::size_t>(3 * (i % 5)), 3) + "+x" +
            std::string(end);
  }
  return text;
}

TEST(CsvBai, StatementsOfFiveRecordsAreNotTested) {
  trace_capture trace;
  EXPECT_EQ(check(statement(5)), kClean);
  EXPECT_EQ(trace.count("WARN", "This file is BAI, not CSV"), 1);
  EXPECT_EQ(trace.count("kvactivecontent_csv_command(): checking for BAI file"), 1);
  EXPECT_EQ(check(statement(4)).code, -202);
}

TEST(CsvBai, LinesEndAtCarriageReturnsLineFeedsAndTheEnd) {
  EXPECT_TRUE(kv_csv_is_bai(statement(5, "/\r"), kv_best_simd_level()));
  EXPECT_TRUE(kv_csv_is_bai(statement(5, "/\r\n\r\n"), kv_best_simd_level()));
  EXPECT_TRUE(kv_csv_is_bai(statement(4) + "01,/", kv_best_simd_level()));
  EXPECT_FALSE(kv_csv_is_bai(statement(4) + "01,/ ", kv_best_simd_level()));
  EXPECT_FALSE(kv_csv_is_bai(statement(4) + "01/", kv_best_simd_level()));
  EXPECT_FALSE(kv_csv_is_bai(statement(4) + " 01,/", kv_best_simd_level()));
  EXPECT_FALSE(kv_csv_is_bai(statement(4) + "16,/", kv_best_simd_level()));
  EXPECT_FALSE(kv_csv_is_bai(statement(4) + "x\n/\n", kv_best_simd_level()));
  EXPECT_TRUE(kv_csv_is_bai(statement(4) + "x/y/\n/\n02,//", kv_best_simd_level()));
}

TEST(CsvBai, LinesBehindAZeroByteAreNotRead) {
  std::string text = statement(5);
  text.insert(text.size() - 5, 1, '\0');
  EXPECT_EQ(check(text).code, -202);
  text = statement(5);
  text.back() = '\0';
  EXPECT_EQ(check(text), kClean);
}

TEST(CsvDetector, TakesAnObjectWithoutBytesForEmpty) {
  const auto job = make_job("", {KV_AC_CSV_INJECTION});
  std::array<char, KV_REASON_SIZE> text{};
  job->data = nullptr;
  EXPECT_EQ(kvactivecontent_csv_command(job.get(), text.data(), text.data()), 0);
  job->object_length = -1;
  EXPECT_EQ(kvactivecontent_csv_command(job.get(), text.data(), text.data()), 0);
}

TEST(CsvDetector, ReadsEveryCutOfATable) {
  const std::string table = "a,\"b,c\",'d'\\,\n\n1,-2,-3 \r\n4,@5,=x\0\n"s;
  for (std::size_t size = 0; size <= table.size(); ++size) {
    const std::int32_t code = check(table.substr(0, size)).code;
    EXPECT_TRUE(code == 0 || code == -202) << size;
  }
}

TEST(CsvDetector, TracesItsSteps) {
  trace_capture trace;
  EXPECT_EQ(check("a;=x"), found("=x"));
  EXPECT_EQ(trace.count("DEBUG", "Checking for CSV injection"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Tokenizing the file with ';' delimiter"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Found Leading \"=\" in cell \"=x\""), 1);
  EXPECT_EQ(trace.count("DEBUG", "regex match found characters"), 1);
  EXPECT_EQ(trace.count("WARN", "\"CSV-injection: =x\" detected"), 1);
}

// Answers as it is told.
class scripted_pattern : public kv_csv_pattern {
 public:
  scripted_pattern(int compile_code, kv_csv_match answer)
      : compile_code_(compile_code), answer_(answer) {}
  int compile() override { return compile_code_; }
  kv_csv_match match(const char* cell) override {
    subjects.emplace_back(cell);
    return answer_;
  }
  std::vector<std::string> subjects;

 private:
  int compile_code_;
  kv_csv_match answer_;
};

verdict check_with(std::string_view bytes, kv_csv_pattern& pattern,
                   std::pmr::memory_resource& memory = *std::pmr::new_delete_resource()) {
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  const std::int32_t code =
      kv_csv_check(bytes, pattern, kv_best_simd_level(), memory, reason.data(), error.data());
  return {code, reason.data(), error.data()};
}

TEST(CsvPattern, ThatDoesNotCompileFailsTheScanEachTime) {
  trace_capture trace;
  scripted_pattern pattern{12, kv_csv_match::yes};
  for (int i = 1; i <= 2; ++i) {
    EXPECT_EQ(check_with("a,b", pattern), (verdict{-1000, "", "Error compiling regex"}));
    EXPECT_EQ(trace.count("ERROR",
                          "Error compiling regex \"^[@\\+\\=\\-].*[^0-9\\,\\.]+\". tre "
                          "errorcode 12"),
              i);
  }
  EXPECT_EQ(check_with("ab", pattern), kClean);  // no table: the pattern is not needed
}

TEST(CsvPattern, ThatFailsToMatchFailsTheScan) {
  scripted_pattern pattern{0, kv_csv_match::failed};
  EXPECT_EQ(check_with("a,=x", pattern), (verdict{-1000, "", "Error matching regex"}));
}

TEST(CsvPattern, HasTheLastWord) {
  trace_capture trace;
  scripted_pattern pattern{0, kv_csv_match::no};
  EXPECT_EQ(check_with("a,=x,-5,+y", pattern), kClean);
  EXPECT_EQ(pattern.subjects, (std::vector<std::string>{"=x", "+y"}));
  EXPECT_EQ(trace.count("DEBUG", "regex match found only digits"), 3);
}

TEST(CsvPattern, IsAskedOnlyOfTheEndOfAVeryLongNumber) {
  scripted_pattern pattern{0, kv_csv_match::yes};
  const std::string digits(3 * KV_CSV_MAX_SUBJECT, '1');
  EXPECT_EQ(check_with("a,-" + digits + "x2", pattern).code, -202);
  ASSERT_EQ(pattern.subjects.size(), 1U);
  EXPECT_LE(pattern.subjects[0].size(), KV_CSV_MAX_SUBJECT + 2);
  EXPECT_TRUE(pattern.subjects[0].starts_with("-1"));
  EXPECT_TRUE(pattern.subjects[0].ends_with("1x"));
  EXPECT_EQ(check("a,-" + digits + "x2").code, -202);
  EXPECT_EQ(check("a,-" + digits), kClean);
}

TEST(CsvMemory, FailsTheScanWhenACellCannotBeCopied) {
  trace_capture trace;
  scripted_pattern pattern{0, kv_csv_match::yes};
  const verdict expected{-1000, "", "Failed to allocate buffer \"_cell\""};
  EXPECT_EQ(check_with("a,=1234567890123456789012345678901234567890x", pattern,
                       *std::pmr::null_memory_resource()),
            expected);
  EXPECT_EQ(trace.count("ERROR", expected.error), 1);
}

}  // namespace
