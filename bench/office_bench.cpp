// Speed of the Office and archive checks, as ratios to what they cannot do without, measured in
// turns in the same run: one listing by the library, one opening that the library refuses, the
// smallest document. Guards: one listing per scan whatever the number of name tests, tables of
// compound files read in place, the search in front of the regular expressions, and time that grows
// no faster than the object on hostile input.
#include <archive.h>
#include <archive_entry.h>
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>

#include "activecontent/kvactivecontent_dde.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "common/kv_archive_filters.h"
#include "support/archive_writer.h"
#include "support/cfb_writer.h"
#include "support/hostile_archives.h"
#include "support/job_builder.h"

namespace {

using slots = std::initializer_list<kv_ac_slot>;

std::int32_t s_package(const std::string& bytes, slots on) {
  const kv_scanobject_ptr job = make_job(bytes, on);
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_OOXML(job.get(), reason, error);
  return code != 0 ? code : kvactivecontent_GIFAR(job.get(), reason, error);
}

std::int32_t s_gifar(const std::string& bytes) {
  const kv_scanobject_ptr job = make_job(bytes, {KV_AC_GIFAR});
  char reason[KV_REASON_SIZE]{};
  char error[KV_REASON_SIZE]{};
  return kvactivecontent_GIFAR(job.get(), reason, error);
}

std::int32_t s_compound(const std::string& bytes) {
  const kv_scanobject_ptr job = make_job(bytes, {KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_MACRO});
  char reason[KV_REASON_SIZE]{};
  return kvactivecontent_msoffice_CDFv2(job.get(), reason);
}

// The library alone: opens, lists, and reads the member whose name ends so, if one is asked for.
void s_library(const std::string& bytes, const char* read_end) {
  const kv_archive_ptr handle{archive_read_new()};
  archive_read_support_filter_all(handle.get());
  archive_read_support_format_all(handle.get());
  if (archive_read_open_memory(handle.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
    return;
  }
  archive_entry* entry = nullptr;
  while (archive_read_next_header(handle.get(), &entry) == ARCHIVE_OK) {
    const std::string_view path = archive_entry_pathname(entry);
    if (read_end != nullptr && path.ends_with(read_end)) {
      std::string content(static_cast<std::size_t>(archive_entry_size(entry)), '\0');
      benchmark::DoNotOptimize(archive_read_data(handle.get(), content.data(), content.size()));
      return;
    }
    benchmark::DoNotOptimize(path.data());
  }
}

// CPU time of this thread: what else the machine does must not count.
double s_cpu_now() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double s_seconds(const std::function<void()>& work) {
  const double start = s_cpu_now();
  work();
  return s_cpu_now() - start;
}

// Median of the time of one by the time of the other, taken in turns.
void s_compare(benchmark::State& state, const std::function<void()>& ours,
               const std::function<void()>& theirs) {
  std::vector<double> mine;
  std::vector<double> other;
  for (auto _ : state) {
    mine.push_back(s_seconds(ours));
    state.PauseTiming();
    other.push_back(s_seconds(theirs));
    state.ResumeTiming();
  }
  const auto median = [](std::vector<double>& values) {
    std::nth_element(values.begin(),
                     values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
  };
  const double one = median(mine);
  state.counters["us"] = one * 1e6;
  state.counters["ratio"] = one / median(other);
}

std::string s_noise(std::size_t length) {
  std::mt19937 random{7};
  std::string text;
  while (text.size() < length) {
    text += "<w:r><w:t>" + std::to_string(random()) + " adder paddle</w:t></w:r>";
  }
  text.resize(length);
  return text;
}

std::string s_document(std::size_t main_part) {
  std::vector<archive_member> members{{"[Content_Types].xml", s_noise(2000)}};
  for (int i = 0; i < 12; ++i) {
    members.push_back({"word/part" + std::to_string(i) + ".xml", s_noise(1500)});
  }
  members.push_back({"word/document.xml", s_noise(main_part)});
  return make_archive(members);
}

void BM_package_names_to_one_listing(benchmark::State& state) {
  const std::string bytes = s_document(200'000);
  s_compare(
      state,
      [&] {
        s_package(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_JAVA});
      },
      [&] { s_library(bytes, nullptr); });
}
BENCHMARK(BM_package_names_to_one_listing);

void BM_package_with_fields_to_listing_and_main_part(benchmark::State& state) {
  const std::string bytes = s_document(static_cast<std::size_t>(state.range(0)));
  s_compare(
      state,
      [&] {
        s_package(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE, KV_AC_MSOFFICE_DDE,
                          KV_AC_MSOFFICE_JAVA});
      },
      [&] {
        s_library(bytes, nullptr);
        s_library(bytes, "document.xml");
      });
}
BENCHMARK(BM_package_with_fields_to_listing_and_main_part)->Arg(183'000)->Arg(1'830'000);

void BM_classes_in_an_archive_to_one_listing(benchmark::State& state) {
  std::vector<archive_member> members;
  for (int i = 0; i < state.range(0); ++i) {
    members.push_back({"folder/member" + std::to_string(i) + ".txt", "x"});
  }
  const std::string bytes = make_archive(members);
  s_compare(
      state, [&] { s_gifar(bytes); }, [&] { s_library(bytes, nullptr); });
}
BENCHMARK(BM_classes_in_an_archive_to_one_listing)->Arg(11)->Arg(1000);

void BM_no_archive_to_one_refused_opening(benchmark::State& state) {
  const std::string bytes =
      "\x89PNG\r\n\x1A\n" + std::string(static_cast<std::size_t>(state.range(0)), '\x55');
  s_compare(
      state, [&] { s_gifar(bytes); }, [&] { s_library(bytes, nullptr); });
}
BENCHMARK(BM_no_archive_to_one_refused_opening)->Arg(20'000)->Arg(1 << 20);

std::string s_compound_file(std::uint32_t megabytes) {
  std::vector<cfb_node> nodes;
  for (int i = 0; i < 20; ++i) {
    nodes.push_back(cfb_stream("stream" + std::to_string(i), "x"));
  }
  nodes.push_back(cfb_storage("storage", {cfb_stream("a"), cfb_stream("b")}));
  cfb_options options;
  options.balanced = true;
  options.padding_blocks = megabytes * 2048;
  return make_cfb(nodes, options).bytes;
}

void BM_compound_file_16_MB_to_1_MB(benchmark::State& state) {
  const std::string large = s_compound_file(16);
  const std::string small = s_compound_file(1);
  s_compare(
      state, [&] { s_compound(large); }, [&] { s_compound(small); });
}
BENCHMARK(BM_compound_file_16_MB_to_1_MB);

void BM_field_search_to_memcpy(benchmark::State& state) {
  const std::string text = s_noise(1 << 20);
  std::string copy(text.size(), '\0');
  s_compare(
      state, [&] { benchmark::DoNotOptimize(kv_dde_find(text)); },
      [&] {
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
      });
}
BENCHMARK(BM_field_search_to_memcpy);

// Hostile families: the time of twice the size by the time of the size must stay under 2.3.
using family = std::string (*)(std::size_t);

std::string s_entries(std::size_t count, const std::function<void(cfb_image&, std::size_t)>& link) {
  cfb_image image = make_cfb(std::vector<cfb_node>(count, cfb_storage("s")));
  for (std::size_t i = 0; i < count; ++i) {
    link(image, i);
  }
  return image.bytes;
}
std::uint32_t s_index(std::size_t value) {
  return static_cast<std::uint32_t>(value);
}

std::string s_duplicate_names(std::size_t n) {
  return s_entries(n, [](cfb_image&, std::size_t) {});
}
std::string s_deep_tree(std::size_t n) {
  return s_entries(n, [](cfb_image& image, std::size_t i) {
    image.set_links(i, kCfbNone, kCfbNone, s_index(i + 1));
  });
}
std::string s_sibling_cycle(std::size_t n) {
  return s_entries(n, [n](cfb_image& image, std::size_t i) {
    image.set_links(i + 1, s_index((i * 7 + 1) % n), s_index((i + 1) % n + 1), s_index(i % 3));
  });
}
std::string s_shared_children(std::size_t n) {
  return s_entries(n, [](cfb_image& image, std::size_t i) {
    image.set_name(i + 1, "n" + std::to_string(i));
    image.set_link_child(i + 1, s_index(i / 2 + 1));
  });
}
// Every list is the rest of one long list, and all names are equal.
std::string s_overlapping_lists(std::size_t n) {
  return s_entries(
      n, [](cfb_image& image, std::size_t i) { image.set_link_child(i + 1, s_index(i + 2)); });
}
std::string s_table_loop(std::size_t n) {
  cfb_image image = make_cfb(std::vector<cfb_node>(n, cfb_stream("s")));
  image.put32(image.table_offset(image.directory_blocks.back()), image.directory_blocks.front());
  return image.bytes;
}

template <family Make>
void BM_compound_family_doubled(benchmark::State& state) {
  const std::string one = Make(static_cast<std::size_t>(state.range(0)));
  const std::string two = Make(static_cast<std::size_t>(state.range(0)) * 2);
  s_compare(
      state, [&] { s_compound(two); }, [&] { s_compound(one); });
}
#define COMPOUND_FAMILY(make) \
  BENCHMARK(BM_compound_family_doubled<make>)->Arg(8000)->Arg(16000)->Arg(32000)->Iterations(15)
COMPOUND_FAMILY(s_duplicate_names);
COMPOUND_FAMILY(s_deep_tree);
COMPOUND_FAMILY(s_sibling_cycle);
COMPOUND_FAMILY(s_shared_children);
COMPOUND_FAMILY(s_overlapping_lists);
COMPOUND_FAMILY(s_table_loop);

std::string s_many_members(std::size_t n) {
  std::vector<raw_zip_member> members(n);
  for (std::size_t i = 0; i < n; ++i) {
    members[i].path = std::to_string(i);
  }
  return make_raw_zip(members);
}
std::string s_nameless_members(std::size_t n) {
  std::vector<raw_zip_member> members(n);
  for (std::size_t i = 0; i < n; ++i) {
    members[i].path = "\xFF" + std::to_string(i);
    members[i].flags = kZipUtf8Name;
  }
  return make_raw_zip(members);
}
std::string s_nested_gzip(std::size_t n) {
  return compress_bytes(compress_bytes(std::string(n * 1000, '\0'), "gzip"), "gzip");
}
std::string s_empty_gzip_members(std::size_t n) {
  std::string all;
  const std::string one = compress_bytes("", "gzip");
  for (std::size_t i = 0; i < n; ++i) {
    all += one;
  }
  return compress_bytes(all, "gzip");
}

std::string s_members_of_7z(std::size_t n) {
  return archive_7z(header_7z_of_members(n, "a"));
}
std::string s_files_of_cd_image(std::size_t n) {
  return cd_image(n);
}
std::string s_map_of_sparse_tar(std::size_t n) {
  return tar_sparse_member(n * 10);
}

template <family Make>
void BM_archive_family_doubled(benchmark::State& state) {
  const std::string one = Make(static_cast<std::size_t>(state.range(0)));
  const std::string two = Make(static_cast<std::size_t>(state.range(0)) * 2);
  s_compare(
      state, [&] { s_gifar(two); }, [&] { s_gifar(one); });
}
#define ARCHIVE_FAMILY(make) \
  BENCHMARK(BM_archive_family_doubled<make>)->Arg(4000)->Arg(8000)->Arg(16000)->Iterations(9)
ARCHIVE_FAMILY(s_many_members);
ARCHIVE_FAMILY(s_nameless_members);
ARCHIVE_FAMILY(s_nested_gzip);
ARCHIVE_FAMILY(s_empty_gzip_members);
ARCHIVE_FAMILY(s_members_of_7z);
ARCHIVE_FAMILY(s_files_of_cd_image);
ARCHIVE_FAMILY(s_map_of_sparse_tar);

// Texts on which the expressions alone, or a search that looks back, would be slow.
std::string s_fields_without_end(std::size_t n) {
  std::string text = "a ";
  while (text.size() < n) {
    text += "dde <";
  }
  return text;
}
std::string s_fields_after_markup(std::size_t n) {
  std::string text;
  while (text.size() < n) {
    text += "dde >";
  }
  return text;
}
std::string s_half_fields(std::size_t n) {
  std::string text;
  while (text.size() < n) {
    text += "ddedde";
  }
  return text;
}
std::string s_links_without_word(std::size_t n) {
  std::string text;
  while (text.size() < n) {
    text += "xddeLink ";
  }
  return text;
}

template <family Make>
void BM_field_family_doubled(benchmark::State& state) {
  const std::string one = Make(static_cast<std::size_t>(state.range(0)));
  const std::string two = Make(static_cast<std::size_t>(state.range(0)) * 2);
  s_compare(
      state, [&] { benchmark::DoNotOptimize(kv_dde_check(two)); },
      [&] { benchmark::DoNotOptimize(kv_dde_check(one)); });
}
#define FIELD_FAMILY(make) \
  BENCHMARK(BM_field_family_doubled<make>)->Arg(1 << 19)->Arg(1 << 20)->Iterations(9)
FIELD_FAMILY(s_fields_without_end);
FIELD_FAMILY(s_fields_after_markup);
FIELD_FAMILY(s_half_fields);
FIELD_FAMILY(s_links_without_word);

}  // namespace

BENCHMARK_MAIN();
