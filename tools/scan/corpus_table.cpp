#include "corpus_table.h"

#include <json-c/json.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <stdexcept>

#include "activecontent/kvactivecontent_switches.h"
#include "common/kv_guard.h"

namespace kv_scan {
namespace {

std::vector<std::string> s_fields(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = line.find('\t', start);
    fields.push_back(line.substr(start, end - start));
    if (end == std::string::npos)
      return fields;
    start = end + 1;
  }
}

bool s_number(std::string_view text, int base, std::int32_t& out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out, base);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::vector<corpus_row> read_table(const std::string& path) {
  std::ifstream file(path);
  if (!file)
    throw std::runtime_error("cannot read " + path);
  std::vector<corpus_row> rows;
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    const std::vector<std::string> fields = s_fields(line);
    corpus_row row;
    if (fields.size() < 4 || !s_number(fields[3], 10, row.code)) {
      throw std::runtime_error(path + ":" + std::to_string(number) +
                               ": wants path, MIME type, switches, code and reason");
    }
    row.path = fields[0];
    row.mime = fields[1];
    row.switches = fields[2];
    row.reason = fields.size() > 4 ? unescape(fields[4]) : std::string();
    rows.push_back(std::move(row));
  }
  return rows;
}

std::map<std::string, corpus_file> read_manifest(const std::string& folder) {
  constexpr std::size_t kFields = 6;  // path, size, digest, MIME type, type text, extension
  std::map<std::string, corpus_file> files;
  std::ifstream file(folder + "/manifest.tsv");
  std::string line;
  while (std::getline(file, line)) {
    std::vector<std::string> fields = s_fields(line);
    if (fields.size() >= kFields) {
      files[fields[0]] = {std::move(fields[4]), std::move(fields[5])};
    }
  }
  return files;
}

std::string unescape(std::string_view text) {
  constexpr std::string_view kLetters = "nrt\\'\"";
  constexpr std::string_view kMeanings = "\n\r\t\\'\"";
  std::string out;
  for (std::size_t index = 0; index < text.size(); ++index) {
    std::int32_t byte = 0;
    const std::string_view rest = text.substr(index);
    if (rest.size() >= 4 && rest.starts_with("\\x") && s_number(rest.substr(2, 2), 16, byte)) {
      out += static_cast<char>(byte);
      index += 3;
      continue;
    }
    const std::size_t letter =
        rest.size() >= 2 && rest[0] == '\\' ? kLetters.find(rest[1]) : std::string_view::npos;
    if (letter != std::string_view::npos) {
      out += kMeanings[letter];
      ++index;
      continue;
    }
    out += rest[0];
  }
  return out;
}

std::string switch_names(const std::string& switches) {
  if (switches != "all") {
    std::string names = switches;
    std::ranges::replace(names, '+', ',');
    return names;
  }
  std::string names;
  for (const auto& [name, slot] : KV_AC_SWITCHES) {
    if (slot == KV_AC_XML_JAVASCRIPT || slot == KV_AC_XML_XSLT)
      continue;
    names += (names.empty() ? "" : ",") + std::string(name);
  }
  return names;
}

std::string definitions_for(const std::vector<corpus_row>& rows) {
  const kv_json_ptr root{json_object_new_object()};
  json_object* sids = json_object_new_object();
  json_object_object_add(root.get(), kCorpusRealm, sids);
  for (const corpus_row& row : rows) {
    if (json_object_object_get_ex(sids, row.switches.c_str(), nullptr))
      continue;
    json_object* definition = json_object_new_object();
    const std::string names = switch_names(row.switches);
    for (std::size_t start = 0; start < names.size();) {
      const std::size_t end = std::min(names.find(',', start), names.size());
      json_object_object_add(definition, names.substr(start, end - start).c_str(),
                             json_object_new_int(1));
      start = end + 1;
    }
    json_object_object_add(sids, row.switches.c_str(), definition);
  }
  return std::string(json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PRETTY)) + "\n";
}

}  // namespace kv_scan
