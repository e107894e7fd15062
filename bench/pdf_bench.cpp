// The PDF scanner over documents in which nothing is found, against a copy of the same bytes, and
// over hostile inputs of growing size. Guards the one forward pass: at least 0.30 of memcpy on a
// document of 1 MB, and no input for which twice the bytes take much more than twice the time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory_resource>
#include <random>
#include <string>

#include "activecontent/PDFscan.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "hostile_family.h"
#include "memory_pass.h"
#include "support/job_builder.h"
#include "support/simd_levels.h"

using namespace std::string_view_literals;

namespace {

void scan(const std::string& text) {
  const auto job = make_job(text, {KV_AC_PDF_ACROFORM, KV_AC_PDF_ACTIVEACTION, KV_AC_PDF_JAVASCRIPT,
                                   KV_AC_PDF_LAUNCH, KV_AC_PDF_OPENACTION, KV_AC_PDF_RICHMEDIA,
                                   KV_AC_PDF_METADATA_PERL, KV_AC_PDF_METADATA_PHP});
  char reason[KV_REASON_SIZE] = {};
  if (kvactivecontent_PDF(job.get(), reason) != 0) {
    std::abort();
  }
  benchmark::DoNotOptimize(reason);
}

constexpr kv_pdf_keyword_t kTable[] = {
    {"/AcroForm", ""},   {"/AA", ""},        {"/JavaScript", ""}, {"/JS", ""},  {"/Launch", ""},
    {"/OpenAction", ""}, {"/RichMedia", ""}, {"<?php", ""},       {"perl", ""}, {"", ""}};

void scan_at(const std::string& text, kv_simd_level level) {
  std::int32_t index = KV_PDF_NO_MATCH;
  if (kv_pdf_scan_with(text.data(), text.size(), kTable, &index, level,
                       *std::pmr::new_delete_resource()) != 0) {
    std::abort();
  }
}

// Pages with dictionaries, and streams of compressed data of up to 16 KB.
std::string document(std::size_t size) {
  std::mt19937 random{7};
  std::string text = "%PDF-1.7\n%\xe2\xe3\xcf\xd3\n";
  for (int number = 1; text.size() < size; number += 2) {
    const std::string page = std::to_string(number);
    const std::string contents = std::to_string(number + 1);
    text += page + " 0 obj\n<</Type/Page/Parent 2 0 R/MediaBox[0 0 612 792]/Contents " + contents +
            " 0 R/Resources<</ProcSet[/PDF/Text/ImageB]/Font<</F1 12 0 R/F2 15 0 R>>/XObject<</Im1 "
            "20 0 R>>>>/Rotate 0>>\nendobj\n";
    const std::size_t length = std::uniform_int_distribution<std::size_t>{200, 16000}(random);
    text += contents + " 0 obj\n<</Filter/FlateDecode/Length " + std::to_string(length) +
            ">>\nstream\n";
    for (std::size_t i = 0; i < length; ++i) {
      text += static_cast<char>(random());
    }
    text += "\nendstream\nendobj\n";
  }
  text.resize(size);
  return text;
}

// Small objects only, as writers without object streams make them.
std::string objects(std::size_t size) {
  std::string text = "%PDF-1.4\n";
  for (int number = 1; text.size() < size; ++number) {
    text += std::to_string(number) +
            " 0 obj\n<</Type/Annot/Subtype/Link/Rect[72 700 200 712]/Border[0 0 0]/Dest[12 0 R/XYZ "
            "72 720 0]/StructParent " +
            std::to_string(number % 97) + ">>\nendobj\n";
  }
  text.resize(size);
  return text;
}

void pdf_text(benchmark::State& state, kv_simd_level level, std::string (*make)(std::size_t)) {
  measure_share_of_copy(state, make(static_cast<std::size_t>(state.range(0))),
                        [level](const std::string& text) { scan_at(text, level); });
}

const std::string kLongLine = std::string(4096, 'x') + " obj<<>>endobj\n";

const hostile_family kFamilies[] = {
    {"endless_obj", "%\n", "obj", ""},
    {"headers_without_endobj", "%\n", "1 0 obj\n", ""},
    {"endless_endobj", "%\n", "\nendobj", ""},
    {"one_long_line", "%\n", "x", " obj endobj"},
    {"long_lines_between", "%\n", kLongLine, ""},
    {"almost_obj", "%\n", "obobjj", ""},
    {"open_brackets", "%\n1 0 obj", "<", "endobj"},
    {"bracket_pairs", "%\n1 0 obj<<", "<<>>", ">>endobj"},
    {"lone_brackets", "%\n1 0 obj", "<a>b", "endobj"},
    {"zeros", "%\n1 0 obj<<", "\0<"sv, ">>endobj"},
    {"number_signs", "%\n1 0 obj<<", "#", ">>endobj"},
    {"escapes", "%\n1 0 obj<<", "#41", ">>endobj"},
    {"slashes", "%\n1 0 obj<<", "/j", ">>endobj"},
    {"almost_keywords", "%\n1 0 obj<<", "/JavaScrip/AcroFor", ">>endobj"},
    {"upper_half", "%\n1 0 obj", "\xff", "endobj"},
};

}  // namespace

int main(int argc, char** argv) {
  for (const kv_simd_level level : available_simd_levels()) {
    const std::string at = "/level_" + std::to_string(static_cast<int>(level));
    benchmark::RegisterBenchmark(("document" + at).c_str(), pdf_text, level, document)
        ->Arg(32 << 10)
        ->Arg(1 << 20)
        ->Arg(8 << 20);
    benchmark::RegisterBenchmark(("small_objects" + at).c_str(), pdf_text, level, objects)
        ->Arg(1 << 20);
  }
  register_hostile_families(kFamilies, scan);
  return run_benchmarks(argc, argv);
}
