// The fast scanner against the literal one: result, match index and, on part of the inputs, every
// trace line.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/PDFscan.h"
#include "support/fragment_text.h"
#include "support/pdf_reference.h"
#include "support/simd_levels.h"
#include "support/trace_capture.h"

using namespace std::string_view_literals;

namespace {

constexpr kv_pdf_keyword_t kTable[] = {
    {"/AcroForm", ""},   {"/AA", ""},        {"/JavaScript", ""}, {"/JS", ""},  {"/Launch", ""},
    {"/OpenAction", ""}, {"/RichMedia", ""}, {"<?php", ""},       {"perl", ""}, {"", ""}};

constexpr std::array kFragments{"obj"sv,
                                "endobj"sv,
                                "end"sv,
                                "\n"sv,
                                "\r"sv,
                                "1 0 obj\n"sv,
                                "\nendobj\n"sv,
                                "<<"sv,
                                ">>"sv,
                                "<"sv,
                                ">"sv,
                                "\0"sv,
                                "#"sv,
                                "#4a"sv,
                                "#00"sv,
                                "/JS"sv,
                                "/J#53"sv,
                                "/AA"sv,
                                " "sv,
                                "("sv,
                                "/"sv,
                                "perl"sv,
                                "<?php"sv,
                                "\x80"sv,
                                "/Java"sv,
                                "Script"sv,
                                "\xff"sv,
                                "/aapl"sv,
                                "x"sv,
                                "<</JS 1>>"sv,
                                "#2"sv,
                                "                                 "sv,
                                "/Type/Catalog/Pages 2 0 R/MediaBox[0 0 612 792]"sv};

std::string document(fragment_text& texts, std::size_t round) {
  std::string text = round % 2 == 0 ? "%\n1 0 obj\n<<" : "";
  text += texts.make(round % 7 == 0 ? 200 : 30);
  text += round % 2 == 0 ? ">>\nendobj\n" : "";
  texts.mutate(text, round % 3);
  return text;
}

void compare(const std::string& text) {
  const std::vector<char> exact(text.begin(), text.end());
  const pdf_reference_result expected = pdf_reference_scan(text, kTable);
  std::int32_t index = KV_PDF_NO_MATCH;
  ASSERT_EQ(kv_PDFscan(exact.data(), exact.size(), kTable, &index), expected.code) << text;
  ASSERT_EQ(index, expected.match_index) << text;
  for (const kv_simd_level level : available_simd_levels()) {
    std::int32_t index_at_level = KV_PDF_NO_MATCH;
    ASSERT_EQ(kv_pdf_scan_with(exact.data(), exact.size(), kTable, &index_at_level, level,
                               *std::pmr::new_delete_resource()),
              expected.code)
        << text;
    ASSERT_EQ(index_at_level, expected.match_index) << text;
  }
  ASSERT_EQ(kv_PDF_IsEncrypted(exact.data(), exact.size()), pdf_reference_is_encrypted(text));
}

TEST(PdfDifferential, ResultsAgreeOnRandomDocuments) {
  fragment_text texts{20, kFragments};
  for (std::size_t round = 0; round < 15000; ++round) {
    ASSERT_NO_FATAL_FAILURE(compare(document(texts, round)));
  }
}

TEST(PdfDifferential, ResultsAgreeOnRandomBytes) {
  constexpr std::array kBytes{"o"sv,  "b"sv, "j"sv,  "e"sv, "n"sv,   "d"sv,
                              "\n"sv, "<"sv, ">"sv,  "#"sv, "4"sv,   "a"sv,
                              "S"sv,  "/"sv, "\0"sv, " "sv, "obj"sv, "endobj"sv};
  fragment_text texts{21, kBytes};
  for (std::size_t round = 0; round < 15000; ++round) {
    ASSERT_NO_FATAL_FAILURE(compare("%\n" + texts.make(60)));
  }
}

// Objects of few kinds one after the other, some of them too long to be searched as a whole, with a
// keyword here and there.
TEST(PdfDifferential, ResultsAgreeOnDocumentsOfManyObjects) {
  constexpr std::array kInside{"/Type/Annot"sv,
                               " "sv,
                               "<<"sv,
                               ">>"sv,
                               "[72 700 200 712]"sv,
                               "/JS"sv,
                               "/Lang"sv,
                               "/A#41 1"sv,
                               "<"sv,
                               ">"sv,
                               "\0"sv,
                               "perl "sv,
                               "stream\n\xff\x80 obj\nendstream"sv,
                               "\n"sv,
                               "/XYZ"sv,
                               "/Subtype/Link"sv};
  fragment_text texts{23, kInside};
  for (std::size_t round = 0; round < 5000; ++round) {
    std::string text = "%PDF-1.4\n";
    for (std::size_t number = texts.below(12); number > 0; --number) {
      text += std::to_string(number) + " 0 obj\n<<";
      std::string inside = texts.make(8);
      if (number % 3 != 0) {
        std::erase(inside, '#');
        std::erase(inside, '\0');
      }
      text += inside + ">>";
      text.append(texts.below(9) == 0 ? 900 + texts.below(300) : 0, 'x');
      text += "\nendobj\n";
    }
    texts.mutate(text, round % 3);
    ASSERT_NO_FATAL_FAILURE(compare(text));
  }
}

// Around every border of blocks, at the end of a document as well.
TEST(PdfDifferential, ResultsAgreeWhereverAKeywordStands) {
  for (std::size_t before = 0; before < 200; ++before) {
    const std::string text = "%\n1 0 obj\n<<" + std::string(before, 'k');
    for (const std::string_view word : {"/JS "sv, "/js<"sv, "/J\0S "sv, "/#4aS "sv, "/JSX/JS "sv}) {
      ASSERT_NO_FATAL_FAILURE(compare(text + std::string(word) + ">>endobj"));
      ASSERT_NO_FATAL_FAILURE(compare(text + ">>" + std::string(word) + "endobj"));
    }
  }
}

// The text of a trace line, behind level and place, or nothing for entering and leaving.
std::string message_of(const std::string& line) {
  const std::size_t at = line.find("kv_PDFscan");
  return line.substr(at == std::string::npos ? 0 : at);
}

TEST(PdfDifferential, TraceLinesAgree) {
  fragment_text texts{22, kFragments};
  for (std::size_t round = 0; round < 300; ++round) {
    std::string text = document(texts, round);
    std::erase(text, '\n');  // a message of one line is one line of the trace
    std::erase(text, '\r');
    text.insert(0, "%\r");
    const pdf_reference_result expected = pdf_reference_scan(text, kTable);
    trace_capture trace;
    std::int32_t index = KV_PDF_NO_MATCH;
    ASSERT_EQ(kv_PDFscan(text.data(), text.size(), kTable, &index), expected.code);
    std::vector<std::string> lines;
    for (const std::string& line : trace.lines()) {
      if (line.find("Entering") == std::string::npos &&
          line.find("Exiting, rc=") == std::string::npos) {
        lines.push_back(message_of(line));
      }
    }
    ASSERT_EQ(lines.size(), expected.log.size()) << text;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const std::string wanted = expected.log[i].substr(expected.log[i].find(' ') + 1);
      ASSERT_NE(lines[i].find(wanted), std::string::npos) << lines[i] << "\n" << wanted;
    }
  }
}

}  // namespace
