// The fast check against the literal one: result, reason and, on part of the inputs, every trace
// line.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/kvactivecontent_csv.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "support/csv_product.h"
#include "support/csv_reference.h"
#include "support/fragment_text.h"
#include "support/job_builder.h"
#include "support/simd_levels.h"
#include "support/trace_capture.h"

using namespace std::string_view_literals;

namespace {

constexpr std::array kFragments{
    ","sv,  ","sv,    ";"sv,  "|"sv,     "\t"sv,   "\n"sv,
    "\n"sv, "\r\n"sv, "\""sv, "'"sv,     "\\"sv,   "a"sv,
    "12"sv, "="sv,    "+"sv,  "-"sv,     "@"sv,    "=1+2"sv,
    " "sv,  "-5"sv,   "."sv,  "\0"sv,    "01,"sv,  "99,/"sv,
    "/"sv,  "\xe4"sv, "\v"sv, "a,b\n"sv, "\n\n"sv, "a field that is longer than a few words"sv};

// Rows with equally many cells, so that the check gets as far as the cells.
constexpr std::array kCells{"a"sv,        "\"b\""sv,
                            "\"c,d\""sv,  "-5"sv,
                            "+3.14"sv,    "-1,5"sv,
                            "'e;f'"sv,    "g\\\\"sv,
                            " -7 "sv,     "\\,"sv,
                            "--x"sv,      "== 1"sv,
                            "\"it's\""sv, "\"h"sv,
                            "@"sv,        "- "sv,
                            "12/5/"sv,    "\xff"sv,
                            "=1+2"sv,     "\n"sv,
                            "-\\5"sv,     "long filler text"sv};

std::string table(fragment_text& texts, std::size_t round) {
  const char delimiter = ",;|\t"[round % 4];
  const std::size_t columns = 1 + texts.below(6);
  std::string text;
  for (std::size_t rows = texts.below(round % 5 == 0 ? 60 : 8); rows > 0; --rows) {
    text += "x";
    for (std::size_t i = 0; i < columns; ++i) {
      text += delimiter;
      text += kCells[texts.below(kCells.size() - (round % 3 == 0 ? 0 : 4))];
    }
    text += round % 2 == 0 ? "\n" : "\r\n";
  }
  return text;
}

csv_reference_result check(const std::string& text) {
  const std::vector<char> exact(text.begin(), text.end());
  const auto job = make_job({exact.data(), exact.size()}, {KV_AC_CSV_INJECTION});
  std::array<char, KV_REASON_SIZE> reason{};
  std::array<char, KV_REASON_SIZE> error{};
  csv_reference_result result;
  result.code = kvactivecontent_csv_command(job.get(), reason.data(), error.data());
  result.reason = reason.data();
  result.error = error.data();
  return result;
}

void compare(const std::string& text) {
  const csv_reference_result expected = csv_reference_check(text);
  const csv_reference_result actual = check(text);
  ASSERT_EQ(actual.code, expected.code) << text;
  ASSERT_EQ(actual.reason, expected.reason) << text;
  ASSERT_EQ(actual.error, expected.error) << text;
  const std::vector<char> exact(text.begin(), text.end());
  for (const kv_simd_level level : available_simd_levels()) {
    const csv_reference_result at_level = csv_product_check({exact.data(), exact.size()}, level);
    ASSERT_EQ(at_level.code, expected.code) << text;
    ASSERT_EQ(at_level.reason, expected.reason) << text;
  }
  for (const char delimiter : ",;|\t\"'\\"sv) {
    ASSERT_EQ(s_CountDelimiters(text.data(), text.size(), delimiter),
              csv_reference_count_delimiters(text, delimiter))
        << text;
  }
}

TEST(CsvDifferential, ResultsAgreeOnRandomText) {
  fragment_text texts{30, kFragments};
  for (std::size_t round = 0; round < 10000; ++round) {
    ASSERT_NO_FATAL_FAILURE(compare(texts.make(round % 9 == 0 ? 300 : 40)));
  }
}

TEST(CsvDifferential, ResultsAgreeOnMutatedTables) {
  fragment_text texts{31, kFragments};
  for (std::size_t round = 0; round < 10000; ++round) {
    std::string text = table(texts, round);
    texts.mutate(text, round % 3);
    ASSERT_NO_FATAL_FAILURE(compare(text));
  }
}

TEST(CsvDifferential, ResultsAgreeOnTablesWithEmptyLines) {
  constexpr std::array kLines{"\n"sv,  "\n"sv, "\n"sv,     "a"sv,     ","sv,  "a,b\n"sv, "\"\n"sv,
                              "'\n"sv, "\""sv, "x,\"\n"sv, "x,'\n"sv, "\\"sv, "\r\n"sv};
  fragment_text texts{32, kLines};
  for (std::size_t round = 0; round < 20000; ++round) {
    ASSERT_NO_FATAL_FAILURE(compare("a,b\n" + texts.make(12)));
  }
}

// Few kinds of bytes, so that lines and cells often agree, and lengths around the borders of words
// and of chunks of words.
TEST(CsvDifferential, ResultsAgreeOnTextsOfSpecialBytes) {
  constexpr std::array kBytes{","sv, ","sv, "\n"sv, "\""sv, "'"sv, "\\"sv,
                              "-"sv, "1"sv, "x"sv,  "/"sv,  ";"sv, " "sv};
  constexpr std::array<std::size_t, 9> kLengths{62, 63, 64, 65, 127, 128, 129, 1024, 1025};
  fragment_text texts{34, kBytes};
  for (std::size_t round = 0; round < 9000; ++round) {
    std::string text;
    while (text.size() < kLengths[round % kLengths.size()]) {
      text += kBytes[texts.below(kBytes.size())];
    }
    ASSERT_NO_FATAL_FAILURE(compare(text));
  }
}

// Tables that stay valid over many words, with fields that hide delimiters in every way, broken at
// one place.
TEST(CsvDifferential, ResultsAgreeOnLongTablesBrokenAtOnePlace) {
  constexpr std::array kFields{"a"sv,          "1.5"sv,  "\"b,c\""sv, "'d,e'"sv,
                               "\\,"sv,        "-5"sv,   "9/"sv,      "\"it's,\""sv,
                               "\"x\\\",\""sv, "\"\""sv, "word"sv,    "\\\\"sv};
  fragment_text texts{35, kFields};
  for (std::size_t round = 0; round < 2000; ++round) {
    std::string text = "x,y,z\n";
    const std::size_t kinds = 2 + texts.below(kFields.size() - 1);
    for (std::size_t rows = 20 + texts.below(200); rows > 0; --rows) {
      text += "r,";
      text += kFields[texts.below(kinds)];
      text += ",";
      text += kFields[texts.below(kinds)];
      text += "\n";
    }
    texts.mutate(text, round % 2);
    ASSERT_NO_FATAL_FAILURE(compare(text));
  }
}

TEST(CsvDifferential, TraceLinesAgree) {
  fragment_text texts{33, kFragments};
  for (std::size_t round = 0; round < 300; ++round) {
    std::string text = round % 2 == 0 ? table(texts, round) : "a,b\n" + texts.make(20);
    std::erase(text, '\r');
    const csv_reference_result expected = csv_reference_check(text);
    trace_capture trace;
    ASSERT_EQ(check(text).code, expected.code);
    std::string written;
    for (const std::string& line : trace.lines()) {
      if (line.find("Entering") == std::string::npos &&
          line.find("Exiting, rc=") == std::string::npos) {
        written += line + "\n";
      }
    }
    std::size_t at = 0;
    for (const std::string& wanted : expected.log) {
      at = written.find(wanted, at);
      ASSERT_NE(at, std::string::npos) << wanted << "\nin\n" << written << "\nof\n" << text;
      at += wanted.size();
    }
    ASSERT_EQ(trace.count(" delimiters, previous line had "),
              std::count_if(expected.log.begin(), expected.log.end(), [](const std::string& line) {
                return line.starts_with("This line has");
              }));
  }
}

TEST(CsvDifferential, PatternAndCellsAgreeForEveryByte) {
  for (int byte = 1; byte < 256; ++byte) {
    for (const char leading : {'=', '+', '-', '@'}) {
      const char cell[] = {leading, '1', static_cast<char>(byte), '2', '\0'};
      const std::string text = std::string("x;") + cell + ";y";
      if (byte == ';') {
        continue;
      }
      const csv_reference_result result = check(text);
      const bool is_comma = byte == ',';  // then the comma is the delimiter and ends the cell
      EXPECT_EQ(result.code == -202, !is_comma && csv_reference_match(cell) == 1) << byte;
    }
  }
}

}  // namespace
