// kv-av-check-corpus: scans the rows of a table of expected verdicts and prints where the verdicts
// agree and where they do not.

#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "corpus_table.h"
#include "scan_backend.h"
#include "scan_options.h"
#include "scan_output.h"
#include "scan_run.h"
#include "scan_targets.h"

namespace kv_scan {
namespace {

struct check_options {
  std::string folder;
  std::string table;
  std::vector<std::string> kinds;
  std::string write_definitions;
  std::size_t in_flight = 16;
  bool local = false;
  kv_tools::broker_settings broker;
  int verbosity = 0;
};

// The table says what the limit of every row is: none that a slow machine could meet.
constexpr std::int32_t kTimeoutMs = 600'000;
constexpr int kServiceWaitMs = 60'000;

struct kind_count {
  std::size_t rows = 0;
  std::size_t agree = 0;
};

struct check_session {
  check_options options;
  std::vector<corpus_row> rows;
  std::map<std::string, corpus_file> manifest;
  std::unique_ptr<kv_tools::broker_client> client;
  std::map<std::string, scan_function> scans;  // by switches
  std::vector<file_kind_reader> kinds;
  std::vector<std::optional<std::string>> differences;  // empty text: agrees
};

void s_read(check_session& session) {
  const check_options& options = session.options;
  session.rows = read_table(options.table);
  session.manifest = read_manifest(options.folder);
  if (options.kinds.empty())
    return;
  const std::set<std::string> wanted(options.kinds.begin(), options.kinds.end());
  std::erase_if(session.rows, [&](const corpus_row& row) { return !wanted.contains(row.kind()); });
}

// A worker that has just been started is waited for.
void s_wait_for_service(const kv_tools::broker_client& client) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kServiceWaitMs);
  std::string error;
  while (std::chrono::steady_clock::now() < end) {
    if (client.ask(kService, "{ \"Command\" : 3 }", {}, 2000, error))
      return;
  }
  throw std::runtime_error(std::string("no answer from ") + kService + ": " + error);
}

void s_open(check_session& session) {
  request_settings settings;
  settings.hostname = own_hostname();
  settings.timeout_ms = kTimeoutMs;
  settings.realm = kCorpusRealm;
  if (!session.options.local) {
    kv_tools::show_log(session.options.verbosity);
    session.client = std::make_unique<kv_tools::broker_client>(session.options.broker);
    s_wait_for_service(*session.client);
  }
  for (const corpus_row& row : session.rows) {
    if (session.scans.contains(row.switches))
      continue;
    settings.sid = row.switches;
    session.scans[row.switches] =
        session.options.local ? scan_here(switches_from_names(switch_names(row.switches)), settings)
                              : scan_by_broker(*session.client, settings);
  }
}

std::string s_verdict_text(std::int32_t code, const std::string& reason) {
  return std::to_string(code) + (reason.empty() ? "" : " " + reason);
}

// Empty when the verdict is the expected one.
std::string s_compare(const corpus_row& row, const scan_verdict& verdict) {
  const bool has_row = !verdict.rows.empty();
  const std::int32_t code = has_row ? verdict.rows[0].code : verdict.code;
  const std::string reason =
      has_row && code == KV_RESULT_ACTIVE_CONTENT ? verdict.rows[0].reason : std::string();
  if (code == row.code && reason == row.reason)
    return {};
  const std::string detail = verdict.error.empty() ? reason : verdict.error;
  return row.path + " [" + row.mime + "; " + row.switches + "]: expected " +
         s_verdict_text(row.code, row.reason) + ", got " + s_verdict_text(code, detail);
}

std::string s_check_row(const check_session& session, const file_kind_reader& kinds,
                        const corpus_row& row) noexcept {
  try {
    const loaded_object object = load_object(session.options.folder + "/" + row.path, kinds);
    object_description description{row.path, object.data.size(), row.mime, object.kind.type,
                                   extension_of(row.path)};
    if (const auto entry = session.manifest.find(row.path); entry != session.manifest.end()) {
      description.type = entry->second.type;
      description.extension = entry->second.extension;
    }
    return s_compare(row, session.scans.at(row.switches)(description, object.data));
  } catch (const std::exception& failure) {
    return row.path + ": " + failure.what();
  }
}

void s_print_counts(const std::map<std::string, kind_count>& counts) {
  kind_count total;
  std::printf("%-12s %8s %8s %8s\n", "kind", "rows", "agree", "differ");
  for (const auto& [kind, count] : counts) {
    std::printf("%-12s %8zu %8zu %8zu\n", kind.c_str(), count.rows, count.agree,
                count.rows - count.agree);
    total.rows += count.rows;
    total.agree += count.agree;
  }
  std::printf("%-12s %8zu %8zu %8zu\n", "all", total.rows, total.agree, total.rows - total.agree);
}

int s_run(check_session& session) {
  const std::size_t count = session.rows.size();
  if (count == 0)
    throw std::runtime_error("the table has no row to check");
  session.kinds.resize(std::min(session.options.in_flight, count));
  session.differences.resize(count);
  std::map<std::string, kind_count> counts;
  scan_totals totals;
  progress_bar progress(true, count);
  run_in_order(
      count, session.options.in_flight,
      [&](std::size_t worker, std::size_t index) {
        session.differences[index] =
            s_check_row(session, session.kinds[worker], session.rows[index]);
      },
      [&](std::size_t index) {
        kind_count& of_kind = counts[session.rows[index].kind()];
        ++of_kind.rows;
        ++totals.files;
        progress.clear();
        if (session.differences[index]->empty()) {
          ++of_kind.agree;
        } else {
          ++totals.found;
          std::puts(escape_untrusted(*session.differences[index]).c_str());
        }
        progress.show(totals);
      },
      [&] { progress.show(totals); });
  progress.clear();
  s_print_counts(counts);
  return totals.found == 0 ? 0 : 1;
}

void s_add_options(CLI::App& app, check_options& options) {
  app.add_option("FOLDER", options.folder, "Folder that the table's paths start from")->required();
  app.add_option("TABLE", options.table, "Table of expected verdicts")->required();
  app.add_option("--kinds", options.kinds, "Only rows of these kinds, separated by commas")
      ->delimiter(',');
  app.add_option("-j,--jobs", options.in_flight, "Requests in flight")->capture_default_str();
  app.add_flag("--local", options.local, "Scan in this process, without a broker");
  app.add_option("--write-definitions", options.write_definitions,
                 "Write the definitions file for the table's switches, and end");
  add_broker_options(app, options.broker, options.verbosity);
  app.footer("Exit status: 0 every row agrees, 1 some differ, 2 error.");
}

int s_main(check_session& session) {
  s_read(session);
  if (!session.options.write_definitions.empty()) {
    std::ofstream out(session.options.write_definitions);
    out << definitions_for(session.rows) << std::flush;
    if (!out)
      throw std::runtime_error("cannot write " + session.options.write_definitions);
    return 0;
  }
  s_open(session);
  return s_run(session);
}

}  // namespace
}  // namespace kv_scan

int main(int argc, char** argv) {
  using namespace kv_scan;
  CLI::App app{"Compares verdicts with a table of expected ones.", "kv-av-check-corpus"};
  check_session session;
  s_add_options(app, session.options);
  if (const int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  try {
    return s_main(session);
  } catch (const std::exception& failure) {
    std::cerr << "kv-av-check-corpus: " << failure.what() << "\n";
    return 2;
  }
}
