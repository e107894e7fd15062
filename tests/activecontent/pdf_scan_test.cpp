// The scanner itself: which objects it sees, which bytes are their dictionaries, what counts as a
// keyword.
#include <gtest/gtest.h>

#include <memory_resource>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/PDFscan.h"
#include "activecontent/PDFscan_internal.h"
#include "support/trace_capture.h"

using namespace std::string_view_literals;

namespace {

constexpr kv_pdf_keyword_t kTable[] = {{"/AA", ""},   {"/JavaScript", ""}, {"/JS", ""},
                                       {"<?php", ""}, {"perl", ""},        {"", ""}};
enum row { kAA = 0, kJavaScript, kJS, kPhp, kPerl };

struct outcome {
  std::int32_t code;
  std::int32_t index;
  bool operator==(const outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const outcome& o) {
  return out << o.code << " at row " << o.index;
}
constexpr outcome kNothing{0, KV_PDF_NO_MATCH};
constexpr outcome found(row index) {
  return {-202, index};
}

outcome scan(std::string_view bytes, const kv_pdf_keyword_t* table = kTable) {
  // Exactly as large as the text, so that a sanitizer sees a read beyond it.
  const std::vector<char> copy(bytes.begin(), bytes.end());
  std::int32_t index = KV_PDF_NO_MATCH;
  const std::int32_t code = kv_PDFscan(copy.data(), copy.size(), table, &index);
  return {code, index};
}

std::string object_with(std::string_view dictionary) {
  return "%PDF-1.4\n1 0 obj\n" + std::string(dictionary) + "\nendobj\n";
}

// Names a case after its row.
constexpr auto kNameOf = [](const auto& test) { return std::string(test.param.name); };

struct scan_case {
  const char* name;
  std::string_view bytes;
  outcome expected;
};

class PdfObjects : public testing::TestWithParam<scan_case> {};
TEST_P(PdfObjects, AreSeenAsTheMarkersSay) {
  EXPECT_EQ(scan(GetParam().bytes), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Markers, PdfObjects,
    testing::Values(
        scan_case{"empty", ""sv, kNothing},
        scan_case{"plain", "\n1 0 obj\n<</JS 1>>\nendobj"sv, kNothing},
        scan_case{"line_break_behind_the_start", "%\n1 0 obj\n<</JS 1>>\nendobj"sv, found(kJS)},
        scan_case{"carriage_return", "%\r1 0 obj\r<</JS 1>>\rendobj"sv, found(kJS)},
        scan_case{"nearest_break_is_taken", "%\n\r1 0 obj<</JS 1>>endobj"sv, found(kJS)},
        scan_case{"no_line_break", "% 1 0 obj\n<</JS 1>>\nendobj"sv, kNothing},
        scan_case{"header_on_the_line_of_endobj_ends_the_scan",
                  "%\n1 0 obj<<>>endobj 2 0 obj\n<</JS 1>>\nendobj"sv, kNothing},
        scan_case{"second_object", "%\n1 0 obj<<>>endobj\n2 0 obj<</JS 1>>endobj"sv, found(kJS)},
        scan_case{"no_endobj", "%\n1 0 obj<</JS 1>>\n"sv, kNothing},
        scan_case{"endobj_cut_by_the_end", "%\n1 0 obj<</JS 1>>\nendob"sv, kNothing},
        scan_case{"endobj_is_the_very_end", "%\n1 0 obj<</JS 1>>endobj"sv, found(kJS)},
        scan_case{"obj_of_a_stray_endobj_is_an_object", "%\n<</JS 1>>endobj"sv, found(kJS)},
        scan_case{"text_in_front_of_obj_on_its_line_belongs_to_the_object",
                  "%\n<</JS 1>> 1 0 obj\n<<>>endobj"sv, found(kJS)},
        scan_case{"inner_obj_does_not_end_an_object", "%\n1 0 obj obj obj<</JS 1>>\nendobj"sv,
                  found(kJS)},
        scan_case{"bytes_of_the_upper_half_before_endobj",
                  "%\n1 0 obj<</JS 1>>\x80\xff\xfe"
                  "endobj"sv,
                  found(kJS)},
        scan_case{"upper_half_byte_where_the_search_stops",
                  "%\n1 0 obj<</JS 1>>\x80"
                  "endob"sv,
                  kNothing},
        scan_case{"letter_case_of_endobj_matters", "%\n1 0 obj<</JS 1>>\nEndobj"sv, kNothing}),
    kNameOf);

struct dictionary_case {
  const char* name;
  std::string_view dictionary;
  outcome expected;
};

class PdfDictionaries : public testing::TestWithParam<dictionary_case> {};
TEST_P(PdfDictionaries, AreMatchedAsTheyStand) {
  EXPECT_EQ(scan(object_with(GetParam().dictionary)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Brackets, PdfDictionaries,
    testing::Values(
        dictionary_case{"only_the_first_is_read", "<</A 1>><</JS 1>>"sv, kNothing},
        dictionary_case{"stream_data_is_not_read", "<<>>stream\n/JS (x)\nendstream"sv, kNothing},
        dictionary_case{"nested", "<</A<<>>/JS 1>>"sv, found(kJS)},
        dictionary_case{"never_closed", "<</A<<>>/JS 1"sv, kNothing},
        dictionary_case{"none", "/JS 1"sv, kNothing},
        dictionary_case{"single_brackets_do_not_count", "<</A<41>/B<42>/JS 1>>"sv, found(kJS)},
        dictionary_case{"four_closing_brackets_close_two_levels", "<</A<<>>>>/JS 1>>"sv, kNothing},
        dictionary_case{"three_opening_brackets_open_one_level", "<<</A>>/JS 1>>"sv, kNothing},
        dictionary_case{"three_closing_brackets_close_one_level", "<</A<<>>>/JS 1>>"sv, found(kJS)},
        dictionary_case{"closing_pair_before_the_first_opening_pair", "< >><</JS 1>>"sv,
                        found(kJS)},
        dictionary_case{"closing_pair_before_any_bracket", ">><</JS 1>>"sv, found(kJS)},
        dictionary_case{"zero_bytes_vanish_before_brackets_are_counted", "<\0<\0/J\0S 1>\0>"sv,
                        found(kJS)},
        dictionary_case{"zero_byte_inside_a_keyword", "<</\0J\0S\0 1>>"sv, found(kJS)},
        dictionary_case{"zero_byte_behind_the_dictionary", "<</JS 1>>\0"sv, found(kJS)},
        dictionary_case{"zero_byte_before_a_lone_bracket", "\0<a\0<</JS 1>>"sv, found(kJS)}),
    kNameOf);

INSTANTIATE_TEST_SUITE_P(
    Escapes, PdfDictionaries,
    testing::Values(
        dictionary_case{"hexadecimal_digits", "<</J#61vaScript 1>>"sv, found(kJavaScript)},
        dictionary_case{"upper_and_lower_case_digits", "<</#4A#4a/#4A#53 1>>"sv, found(kJS)},
        dictionary_case{"one_digit_is_no_escape", "<</#4/J#5S 1>>"sv, kNothing},
        dictionary_case{"no_digits", "<</J#S 1>>"sv, kNothing},
        dictionary_case{"decoded_once", "<</J#2353 1>>"sv, kNothing},
        dictionary_case{"decoded_zero_is_a_byte_like_any_other", "<</A#00/JS 1>>"sv, found(kJS)},
        dictionary_case{"decoded_zero_parts_a_keyword", "<</J#00S 1>>"sv, kNothing},
        dictionary_case{"decoded_delimiter", "<</JS#20 1>>"sv, found(kJS)},
        dictionary_case{"behind_an_inner_dictionary_escapes_stay", "<</A<<>>/#4aS 1>>"sv, kNothing},
        dictionary_case{"inside_an_inner_dictionary", "<</A<</#4aS 1>>/B 1>>"sv, found(kJS)},
        dictionary_case{"inside_again_after_an_inner_one", "<</A<<>>/B<</#4aS 1>>>>"sv, found(kJS)},
        dictionary_case{"brackets_made_by_escapes_mean_nothing", "<</A#3e#3e/#4aS 1>>"sv,
                        found(kJS)},
        dictionary_case{"escape_cut_by_the_closing_brackets", "<</JS #4>>"sv, found(kJS)}),
    kNameOf);

INSTANTIATE_TEST_SUITE_P(
    Keywords, PdfDictionaries,
    testing::Values(
        dictionary_case{"table_order_decides", "<</S/JavaScript/JS(app.alert(1))>>"sv,
                        found(kJavaScript)},
        dictionary_case{"table_order_decides_whatever_stands_first",
                        "<</JS(app.alert(1))/S/JavaScript/AA/x>>"sv, found(kAA)},
        dictionary_case{"letter_case_is_ignored", "<</jAvAsCrIpT 1>>"sv, found(kJavaScript)},
        dictionary_case{"only_the_first_occurrence_counts", "<</AAPL:Keywords 1/AA 1>>"sv,
                        kNothing},
        dictionary_case{"a_later_row_may_still_count", "<</AAPL 1/JS 1>>"sv, found(kJS)},
        dictionary_case{"php", "<</Title(<?php echo)>>"sv, found(kPhp)},
        dictionary_case{"perl", "<</Title(Perl )>>"sv, found(kPerl)},
        dictionary_case{"word_within_a_word", "<</Title(hyperl )>>"sv, found(kPerl)},
        dictionary_case{"longer_word", "<</Title(perlite perl )>>"sv, kNothing},
        dictionary_case{"directly_before_the_closing_brackets", "<</JS>>"sv, kNothing}),
    kNameOf);

TEST(PdfKeywords, CountOnlyBeforeADelimiter) {
  for (int byte = 0; byte < 256; ++byte) {
    std::string dictionary = "<</JS? >>";
    dictionary[5] = static_cast<char>(byte);
    const bool counts =
        std::string_view("[\\]\n\r ()/:").find(static_cast<char>(byte)) != std::string_view::npos;
    // A zero byte is dropped, which brings the blank next to the keyword.
    EXPECT_EQ(scan(object_with(dictionary)), counts || byte == 0 ? found(kJS) : kNothing) << byte;
  }
}

TEST(PdfKeywords, AreFoundAtEveryOffset) {
  for (std::size_t filler = 0; filler < 200; ++filler) {
    const std::string blanks(filler, ' ');
    EXPECT_EQ(scan(object_with("<<" + blanks + "/JS 1>>")), found(kJS)) << filler;
    EXPECT_EQ(scan(object_with(blanks + "<</JS 1" + blanks + ">>")), found(kJS)) << filler;
    EXPECT_EQ(scan(blanks + "\n1 0 obj" + blanks + "<</JS 1>>endobj"),
              filler == 0 ? kNothing : found(kJS))
        << filler;
  }
}

TEST(PdfKeywords, OfOneByteAndAtMostTwelve) {
  const kv_pdf_keyword_t one[] = {{"q", ""}, {"", ""}};
  EXPECT_EQ(scan(object_with("<< Q /b>>"), one), (outcome{-202, 0}));
  const kv_pdf_keyword_t twelve[] = {
      {"/a0", ""}, {"/a1", ""}, {"/a2", ""}, {"/b3", ""}, {"/b4", ""}, {"/b5", ""}, {"/c6", ""},
      {"/c7", ""}, {"d8", ""},  {"e9", ""},  {"f10", ""}, {"g11", ""}, {"", ""}};
  for (std::int32_t i = 0; i < 12; ++i) {
    EXPECT_EQ(scan(object_with("<<" + std::string(twelve[i].keyword) + " >>"), twelve),
              (outcome{-202, i}));
  }
}

TEST(PdfScan, WithoutKeywordsWalksAndFindsNothing) {
  const kv_pdf_keyword_t empty[] = {{"", ""}};
  trace_capture trace;
  EXPECT_EQ(scan(object_with("<</JS 1>>") + "2 0 obj<<>>endobj", empty), kNothing);
  EXPECT_EQ(trace.count("TRACE", "object from offset"), 2);
}

TEST(PdfScan, EveryCutOfADocumentIsRead) {
  const std::string document =
      object_with("<</A#41 1/J#53 (x)/B<<\0/C<41>>>/JavaScript#20>>") + object_with("<\0</JS 1>>");
  for (std::size_t size = 0; size <= document.size(); ++size) {
    const outcome result = scan(document.substr(0, size));
    EXPECT_TRUE(result == kNothing || result.code == -202) << size;
  }
}

TEST(PdfScan, TakesNoBytesForAnEmptyDocument) {
  std::int32_t index = KV_PDF_NO_MATCH;
  EXPECT_EQ(kv_PDFscan(nullptr, 0, kTable, &index), 0);
  EXPECT_EQ(index, KV_PDF_NO_MATCH);
}

// Gives memory for so many requests, then none.
class failing_memory : public std::pmr::memory_resource {
 public:
  explicit failing_memory(int grants) : grants_(grants) {}

 private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (grants_-- <= 0) {
      throw std::bad_alloc();
    }
    return std::pmr::new_delete_resource()->allocate(bytes, alignment);
  }
  void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override {
    std::pmr::new_delete_resource()->deallocate(memory, bytes, alignment);
  }
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
  int grants_;
};

outcome scan_with(std::string_view bytes, int grants) {
  failing_memory memory{grants};
  std::int32_t index = KV_PDF_NO_MATCH;
  const std::int32_t code =
      kv_pdf_scan_with(bytes.data(), bytes.size(), kTable, &index, kv_best_simd_level(), memory);
  return {code, index};
}

TEST(PdfMemory, FailsTheScanWhenZerosCannotBeDropped) {
  const std::string document = object_with("<</J\0S 1/Title(long enough)>>"sv);
  trace_capture trace;
  EXPECT_EQ(scan_with(document, 0), (outcome{-1000, KV_PDF_NO_MATCH}));
  EXPECT_EQ(trace.count("ERROR", "Failed to allocate "), 1);
  EXPECT_EQ(trace.count("DEBUG", "Returning -1000"), 1);
  EXPECT_EQ(scan_with(document, 1), found(kJS));
}

TEST(PdfMemory, EndsTheScanWithTheResultSoFarWhenEscapesCannotBeUndone) {
  const std::string document =
      object_with("<</A#42/Title(long enough)>>") + "2 0 obj<</JS 1>>endobj";
  trace_capture trace;
  EXPECT_EQ(scan_with(document, 0), kNothing);
  EXPECT_EQ(trace.count("ERROR", "failed to canonicalize dictionary"), 1);
  EXPECT_EQ(scan_with(document, 1), found(kJS));
}

TEST(PdfMemory, IsNotTouchedForDictionariesWithoutZerosAndEscapes) {
  EXPECT_EQ(scan_with(object_with("<</A (long enough to need memory)/JS 1>>"), 0), found(kJS));
}

TEST(PdfTrace, TellsOfAnObjectItsDictionaryAndTheKeyword) {
  trace_capture trace;
  EXPECT_EQ(scan("%\n1 0 obj<</#4aS 1>>endobj"), found(kJS));
  EXPECT_EQ(trace.count("TRACE", "object from offset 0x1 to offset 0x19"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Dictionary: <</#4aS 1>>"), 1);
  EXPECT_EQ(trace.count("TRACE", "Analyzing dictionary <</#4aS 1>>"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Encoded dictionary entry found"), 1);
  EXPECT_EQ(trace.count("TRACE", "Found hex encoded character"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Converted \"<</#4aS 1>>\" to \"<</JS 1>>\""), 1);
  EXPECT_EQ(trace.count("DEBUG", "\"/JS\" found in <</JS 1>>"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Returning -202"), 1);
}

TEST(PdfTrace, TellsOfWhatIsMissing) {
  trace_capture trace;
  EXPECT_EQ(scan("%\n1 0 obj[1]endobj\n2 0 obj"), kNothing);
  EXPECT_EQ(trace.count("TRACE", "PDFExtractDictionary(): No dictionary found"), 1);
  EXPECT_EQ(trace.count("WARN", "No corresponding closing tag found"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Returning 0"), 1);
}

TEST(PdfTrace, SaysNothingOfAConversionThatChangedNothing) {
  trace_capture trace;
  EXPECT_EQ(scan("%\n1 0 obj<</A#x>>endobj"), kNothing);
  EXPECT_EQ(trace.count("Encoded dictionary entry found"), 1);
  EXPECT_EQ(trace.count("Converted"), 0);
}

int is_encrypted(std::string_view bytes) {
  const std::vector<char> copy(bytes.begin(), bytes.end());
  return kv_PDF_IsEncrypted(copy.data(), copy.size());
}

TEST(PdfEncryption, IsReadFromTheLastTrailer) {
  EXPECT_EQ(is_encrypted("trailer<</Encrypt 1>>"), 1);
  EXPECT_EQ(is_encrypted("/Encrypt trailer<<>>"), 0);
  EXPECT_EQ(is_encrypted("trailer<</Encrypt 1>>trailer<<>>"), 0);
  EXPECT_EQ(is_encrypted("trailer<<>>trailer<</Encrypt 1>>"), 1);
  EXPECT_EQ(is_encrypted("trailer/Encrypt"), 0);
  EXPECT_EQ(is_encrypted("trailer/Encrypt1"), 1);
  EXPECT_EQ(is_encrypted("trailer/Encryp"), 0);
  EXPECT_EQ(is_encrypted("trailer"), 0);
  EXPECT_EQ(is_encrypted("<</Encrypt 1>>"), 0);
}

TEST(PdfEncryption, PointsAtTheEntry) {
  const std::string document = "trailer <</Encrypt 1 0 R/Encrypt 2>>";
  EXPECT_EQ(s_GetEncrypt(document.data(), document.size()), document.data() + 10);
}

TEST(PdfEncryption, RefusesWhatCannotHoldATrailer) {
  trace_capture trace;
  EXPECT_EQ(kv_PDF_IsEncrypted(nullptr, 100), 0);
  EXPECT_EQ(trace.count("ERROR", "Invalid Parameter: in: 0x0, len: 100"), 1);
  EXPECT_EQ(kv_PDF_IsEncrypted("traile", 6), 0);
  EXPECT_EQ(trace.count("ERROR", "len: 6"), 1);
  EXPECT_EQ(is_encrypted("trailor"), 0);
  EXPECT_EQ(trace.count("Trailer not found."), 1);
  EXPECT_EQ(is_encrypted("trailer/Encrypt 1"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Found \"/Encrypt\""), 1);
}

}  // namespace
