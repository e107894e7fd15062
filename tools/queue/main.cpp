// kv-av-queue: looks into a worker's persistent queue of log and event records, and empties it.

#include <json-c/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <iostream>
#include <string>

#include "common/kv_json.h"
#include "queue_view.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 2;
constexpr long kTempAgeSeconds = 24L * 60 * 60;

struct options {
  std::string queue;
  bool json = false;
  std::string entry;
  bool temp = false;
  int yes = 0;
};

int s_fail(const std::string& message) {
  std::cerr << "kv-av-queue: " << message << "\n";
  return kExitFailed;
}

std::string s_time_text(std::time_t time) {
  std::tm utc{};
  std::array<char, 32> text{};
  gmtime_r(&time, &utc);
  std::strftime(text.data(), text.size(), "%F %H:%M:%S", &utc);
  return text.data();
}

// File names in the queue are foreign text to a terminal.
std::string s_printable(const std::string& name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      std::array<char, 5> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
      text += escaped.data();
    } else {
      text += c;
    }
  }
  return text;
}

void s_print_json(const kv_json_ptr& object) {
  std::cout << json_object_to_json_string_ext(object.get(), KV_JSON_COMPACT) << "\n";
}

kv_json_ptr s_entry_json(const queue_entry& entry) {
  kv_json_ptr object{json_object_new_object()};
  json_object_object_add(object.get(), "name", json_object_new_string(entry.name.c_str()));
  json_object_object_add(object.get(), "type", json_object_new_string_len(&entry.type, 1));
  json_object_object_add(object.get(), "temporary", json_object_new_boolean(entry.temporary));
  json_object_object_add(object.get(), "size", json_object_new_uint64(entry.size));
  json_object_object_add(object.get(), "time", json_object_new_int64(entry.time));
  return object;
}

int s_list(const options& opts) {
  const auto entries = queue_entries(opts.queue);
  if (!entries) {
    return s_fail(opts.queue + " is no queue");
  }
  for (const queue_entry& entry : *entries) {
    if (opts.json) {
      s_print_json(s_entry_json(entry));
    } else {
      std::printf("%s  %c  %9lu  %s%s\n", s_time_text(entry.time).c_str(), entry.type,
                  static_cast<unsigned long>(entry.size), s_printable(entry.name).c_str(),
                  entry.temporary ? "  (half written)" : "");
    }
  }
  return kExitOk;
}

int s_show(const options& opts) {
  const auto bytes = queue_read_entry(opts.queue, opts.entry);
  if (!bytes) {
    return s_fail("no entry " + s_printable(opts.entry) + " in " + opts.queue);
  }
  std::cout << *bytes << (isatty(STDOUT_FILENO) != 0 ? "\n" : "");
  return kExitOk;
}

int s_count(const options& opts) {
  const auto entries = queue_entries(opts.queue);
  if (!entries) {
    return s_fail(opts.queue + " is no queue");
  }
  long logs = 0;
  long events = 0;
  long others = 0;
  unsigned long bytes = 0;
  for (const queue_entry& entry : *entries) {
    (entry.type == 'L' ? logs : entry.type == 'E' ? events : others) += 1;
    bytes += entry.size;
  }
  const auto limits = queue_read_limits(opts.queue);
  if (!opts.json) {
    std::printf("logs    %ld\nevents  %ld\nothers  %ld\nbytes   %lu\n", logs, events, others,
                bytes);
    if (limits) {
      std::printf("limits  %ld entries, %ld bytes\n", limits->max_entries, limits->max_bytes);
    }
    return kExitOk;
  }
  const kv_json_ptr object{json_object_new_object()};
  const auto add = [&object](const char* key, json_object* value) {
    json_object_object_add(object.get(), key, value);
  };
  add("logs", json_object_new_int64(logs));
  add("events", json_object_new_int64(events));
  add("others", json_object_new_int64(others));
  add("bytes", json_object_new_uint64(bytes));
  if (limits) {
    add("max_entries", json_object_new_int64(limits->max_entries));
    add("max_bytes", json_object_new_int64(limits->max_bytes));
  }
  s_print_json(object);
  return kExitOk;
}

bool s_answered_yes(const std::string& question) {
  std::cerr << question << " [yes/no] ";
  std::string answer;
  return std::getline(std::cin, answer) && answer == "yes";
}

// Records are lost for good: the answer is asked for twice, or given twice on the command line.
bool s_confirmed(const options& opts, std::size_t count) {
  if (opts.yes >= 2) {
    return true;
  }
  const std::string what = std::to_string(count) + " entries of " + opts.queue;
  return s_answered_yes("Remove " + what + "?") &&
         s_answered_yes("They were not delivered and cannot be brought back. Really remove?");
}

int s_purge(const options& opts) {
  const queue_lock lock(opts.queue);
  if (!lock.is_held()) {
    return s_fail(opts.queue + " is held by a worker, or is no queue; nothing was removed");
  }
  auto entries = queue_entries(opts.queue);
  if (!entries) {
    return s_fail(opts.queue + " is no queue");
  }
  if (opts.temp) {
    const std::time_t newest = std::time(nullptr) - kTempAgeSeconds;
    std::erase_if(*entries, [newest](const queue_entry& entry) {
      return !entry.temporary || entry.time > newest;
    });
  }
  if (!entries->empty() && !s_confirmed(opts, entries->size())) {
    return s_fail("nothing was removed");
  }
  const std::size_t removed = queue_remove(opts.queue, *entries);
  std::cout << removed << " entries removed\n";
  return removed == entries->size() ? kExitOk : s_fail("some entries could not be removed");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Looks into a worker's persistent queue of log and event records.\n"
      "QUEUE is the queue's folder, BASEDIR/run/kv-av-activecontent.pq."};
  app.require_subcommand(1);
  options opts;
  const auto add_queue = [&opts](CLI::App* command) {
    command->add_option("QUEUE", opts.queue, "folder of the queue")
        ->required()
        ->check(CLI::ExistingDirectory);
    return command;
  };
  CLI::App* list = add_queue(app.add_subcommand("list", "list the entries, oldest first"));
  list->add_flag("--json", opts.json, "one JSON object per line");
  CLI::App* show = add_queue(app.add_subcommand("show", "print one entry as it is"));
  show->add_option("ENTRY", opts.entry, "file name of the entry")->required();
  CLI::App* count = add_queue(app.add_subcommand("count", "count entries and bytes"));
  count->add_flag("--json", opts.json, "one JSON object");
  CLI::App* purge = add_queue(
      app.add_subcommand("purge", "remove all entries; refused while a worker holds the queue"));
  purge->add_flag("--temp", opts.temp, "only half-written entries older than a day");
  purge->add_flag("--yes", opts.yes, "given twice, removes without asking twice");
  CLI11_PARSE(app, argc, argv);

  if (list->parsed()) {
    return s_list(opts);
  }
  if (show->parsed()) {
    return s_show(opts);
  }
  return count->parsed() ? s_count(opts) : s_purge(opts);
}
