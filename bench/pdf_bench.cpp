// The PDF scanner over documents in which nothing is found, against a copy of the same bytes, and
// over hostile inputs of growing size. Guards the one forward pass: at least 0.30 of memcpy on a
// document of 1 MB, and no input for which twice the bytes take much more than twice the time.
#include <benchmark/benchmark.h>

#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "activecontent/kvactivecontent_detectors.h"
#include "memory_pass.h"
#include "support/job_builder.h"

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

std::string repeated(std::string_view begin, std::string_view unit, std::size_t size,
                     std::string_view end) {
  std::string text(begin);
  while (text.size() < size) {
    text += unit;
  }
  return text + std::string(end);
}

void pdf_document(benchmark::State& state) {
  measure_share_of_copy(state, document(static_cast<std::size_t>(state.range(0))), scan);
}
BENCHMARK(pdf_document)->Arg(32 << 10)->Arg(1 << 20)->Arg(8 << 20);

void pdf_small_objects(benchmark::State& state) {
  measure_share_of_copy(state, objects(static_cast<std::size_t>(state.range(0))), scan);
}
BENCHMARK(pdf_small_objects)->Arg(1 << 20);

using family = std::function<std::string(std::size_t)>;
const std::vector<std::pair<const char*, family>> kFamilies{
    {"endless_obj", [](std::size_t n) { return repeated("%\n", "obj", n, ""); }},
    {"headers_without_endobj", [](std::size_t n) { return repeated("%\n", "1 0 obj\n", n, ""); }},
    {"endless_endobj", [](std::size_t n) { return repeated("%\n", "\nendobj", n, ""); }},
    {"one_long_line", [](std::size_t n) { return repeated("%\n", "x", n, " obj endobj"); }},
    {"long_lines_between",
     [](std::size_t n) {
       return repeated("%\n", std::string(4096, 'x') + " obj<<>>endobj\n", n, "");
     }},
    {"almost_obj", [](std::size_t n) { return repeated("%\n", "obobjj", n, ""); }},
    {"open_brackets", [](std::size_t n) { return repeated("%\n1 0 obj", "<", n, "endobj"); }},
    {"bracket_pairs",
     [](std::size_t n) { return repeated("%\n1 0 obj<<", "<<>>", n, ">>endobj"); }},
    {"lone_brackets", [](std::size_t n) { return repeated("%\n1 0 obj", "<a>b", n, "endobj"); }},
    {"zeros",
     [](std::size_t n) {
       return repeated("%\n1 0 obj<<", std::string_view("\0<", 2), n, ">>endobj");
     }},
    {"number_signs", [](std::size_t n) { return repeated("%\n1 0 obj<<", "#", n, ">>endobj"); }},
    {"escapes", [](std::size_t n) { return repeated("%\n1 0 obj<<", "#41", n, ">>endobj"); }},
    {"slashes", [](std::size_t n) { return repeated("%\n1 0 obj<<", "/j", n, ">>endobj"); }},
    {"almost_keywords",
     [](std::size_t n) { return repeated("%\n1 0 obj<<", "/JavaScrip/AcroFor", n, ">>endobj"); }},
    {"upper_half", [](std::size_t n) { return repeated("%\n1 0 obj", "\xff", n, "endobj"); }},
};

void pdf_family(benchmark::State& state) {
  const auto& [name, make] = kFamilies[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(name);
  measure_doublings(state, 256 << 10, make, scan);
}
BENCHMARK(pdf_family)->DenseRange(0, static_cast<int>(kFamilies.size()) - 1)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
