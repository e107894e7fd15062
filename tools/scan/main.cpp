// kv-av-scan: sends files to the active-content service and prints its verdicts.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include "scan_backend.h"
#include "scan_options.h"
#include "scan_output.h"
#include "scan_run.h"
#include "scan_targets.h"

namespace kv_scan {
namespace {

// Everything that one run needs, set up before the first object.
struct scan_session {
  scan_options options;
  std::unique_ptr<kv_tools::broker_client> client;  // null for local scans
  scan_function scan;
  std::vector<file_kind_reader> kinds;  // one per thread
  std::vector<scan_target> targets;
  std::vector<std::optional<scan_result>> results;
};

request_settings s_settings(const scan_options& options) {
  request_settings settings = options.request;
  settings.hostname = own_hostname();
  settings.timeout_ms = static_cast<std::int32_t>(options.timeout_s * 1000);
  return settings;
}

void s_open(scan_session& session) {
  const scan_options& options = session.options;
  if (!options.local) {
    kv_tools::show_log(options.verbosity);
    session.client = std::make_unique<kv_tools::broker_client>(options.broker);
    session.scan = scan_by_broker(*session.client, s_settings(options));
    return;
  }
  if (options.enable.empty() && options.definition.empty()) {
    throw std::runtime_error("--local needs --enable or --definition");
  }
  session.scan = scan_here(options.enable.empty() ? switches_from_file(options.definition)
                                                  : switches_from_names(options.enable),
                           s_settings(options));
}

scan_result s_scan_one(const scan_session& session, const file_kind_reader& kinds,
                       const scan_target& target) noexcept {
  scan_result result;
  const auto start = std::chrono::steady_clock::now();
  try {
    result.path = target.path;
    if (!target.error.empty()) {
      result.verdict = failed_verdict(target.error);
      return result;
    }
    const loaded_object object = load_object(target.path, kinds);
    result.size = object.data.size();
    result.mime = mime_to_send(object.kind.mime);
    result.type = object.kind.type;
    const object_description description{target.path, result.size, result.mime, result.type,
                                         extension_of(target.path)};
    result.verdict = session.scan(description, object.data);
  } catch (const std::exception& failure) {
    result.verdict = failed_verdict(failure.what());
  }
  result.time = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  return result;
}

void s_count(const scan_result& result, scan_totals& totals) {
  if (result.verdict.status == scan_status::error) {
    ++totals.errors;
    return;
  }
  ++totals.files;
  totals.bytes += result.size;
  totals.found += result.verdict.status == scan_status::found ? 1 : 0;
}

void s_print(const scan_options& options, const scan_result& result, bool colour) {
  if (options.only_found && result.verdict.status == scan_status::ok)
    return;
  const std::string text = options.json ? json_line(result) : text_lines(result, colour);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int s_run(scan_session& session) {
  const scan_options& options = session.options;
  session.targets = collect_targets(options.paths, options.recursive);
  session.results.resize(session.targets.size());
  session.kinds.resize(std::min(options.in_flight, session.targets.size()));
  const bool colour = std::getenv("NO_COLOR") == nullptr && ::isatty(STDOUT_FILENO) == 1;
  progress_bar progress(!options.json || ::isatty(STDOUT_FILENO) == 0, session.targets.size());
  scan_totals totals;
  const auto start = std::chrono::steady_clock::now();
  run_in_order(
      session.targets.size(), options.in_flight,
      [&](std::size_t worker, std::size_t index) {
        session.results[index] = s_scan_one(session, session.kinds[worker], session.targets[index]);
      },
      [&](std::size_t index) {
        s_count(*session.results[index], totals);
        progress.clear();
        s_print(options, *session.results[index], colour);
        session.results[index].reset();
        progress.show(totals);
      },
      [&] { progress.show(totals); });
  progress.clear();
  totals.time = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  std::fflush(stdout);
  if (!options.no_summary)
    std::fputs(summary(totals).c_str(), options.json ? stderr : stdout);
  return exit_status(totals);
}

}  // namespace
}  // namespace kv_scan

int main(int argc, char** argv) {
  using namespace kv_scan;
  CLI::App app{"Scans files for active content.", "kv-av-scan"};
  scan_session session;
  add_scan_options(app, session.options);
  app.footer("Exit status: 0 nothing found, 1 active content found, 2 error (found wins).");
  if (const int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  try {
    s_open(session);
    return s_run(session);
  } catch (const std::exception& failure) {
    std::cerr << "kv-av-scan: " << failure.what() << "\n";
    return 2;
  }
}
