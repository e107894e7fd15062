#pragma once
// A table of expected verdicts, tab separated: path below the corpus folder, MIME type to send,
// switches joined by "+" ("all": every one but XML_JAVASCRIPT and XML_XSLT), expected result code
// of the file, expected reason of a finding (with backslash escapes for bytes). And the folder's
// own manifest.tsv with type text and extension of each file. Pure, but for reading the files.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kv_scan {

struct corpus_row {
  std::string path;
  std::string mime;
  std::string switches;
  std::int32_t code = 0;
  std::string reason;  // bytes

  // First folder of the path.
  [[nodiscard]] std::string kind() const { return path.substr(0, path.find('/')); }
};

struct corpus_file {
  std::string type;
  std::string extension;
};

// Throws std::runtime_error naming the line that cannot be read.
[[nodiscard]] std::vector<corpus_row> read_table(const std::string& path);
// Empty when the folder has no manifest.
[[nodiscard]] std::map<std::string, corpus_file> read_manifest(const std::string& folder);

// Undoes \\, \n, \r, \t, \', \" and \xNN; every other character is taken as it stands.
[[nodiscard]] std::string unescape(std::string_view text);

// Names of a row's switches, joined by ",".
[[nodiscard]] std::string switch_names(const std::string& switches);

// Definitions file for the rows: under one realm, each set of switches as the SID that it is
// written as.
inline constexpr const char* kCorpusRealm = "check-corpus";
[[nodiscard]] std::string definitions_for(const std::vector<corpus_row>& rows);

}  // namespace kv_scan
