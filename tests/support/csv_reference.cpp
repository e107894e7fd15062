#include "support/csv_reference.h"

#include <tre/tre.h>

#include <cstring>
#include <stdexcept>

#include "common/kvhlp-string.h"

namespace {

constexpr std::string_view kCandidates = ",;|\t";

bool s_is_bai(const std::string& bytes) {
  std::string copy = bytes.c_str();
  int matching = 0;
  char* rest = nullptr;
  for (const char* line = strtok_r(copy.data(), "\r\n", &rest); line != nullptr;
       line = strtok_r(nullptr, "\r\n", &rest)) {
    for (const char* prefix : {"01,", "02,", "03,", "98,", "99,"}) {
      if (strncmp(line, prefix, 3) == 0 && line[strlen(line) - 1] == '/') {
        ++matching;
      }
    }
  }
  return matching > 4;
}

struct compiled_pattern {
  compiled_pattern() {
    if (tre_regcomp(&regex, "^[@\\+\\=\\-].*[^0-9\\,\\.]+", REG_EXTENDED | REG_NOSUB) != REG_OK) {
      throw std::runtime_error("the pattern does not compile");
    }
  }
  compiled_pattern(const compiled_pattern&) = delete;
  compiled_pattern& operator=(const compiled_pattern&) = delete;
  ~compiled_pattern() { tre_regfree(&regex); }
  regex_t regex;
};

class reference {
 public:
  explicit reference(std::string_view bytes) : in_(bytes) {}

  csv_reference_result run() {
    log("Checking for CSV injection");
    log("checking for BAI file");
    if (s_is_bai(in_)) {
      log("This file is BAI, not CSV");
      return result_;
    }
    const char delimiter = choose();
    if (delimiter == '\0') {
      log("CSV validation failed");
      return result_;
    }
    log(std::string("Tokenizing the file with '") + delimiter + "' delimiter");
    test_cells(delimiter);
    return result_;
  }

 private:
  void log(const std::string& text) { result_.log.push_back(text); }

  char choose() {
    if (in_.find('\n') == std::string::npos) {
      log("Buffer is one line only");
      for (const char delimiter : kCandidates) {
        if (csv_reference_count_delimiters(in_, delimiter) >= 1) {
          return delimiter;
        }
      }
      return '\0';
    }
    std::string valid;
    for (const char delimiter : kCandidates) {
      if (is_valid(delimiter)) {
        valid += delimiter;
      }
    }
    return valid.empty() ? '\0' : valid.front();
  }

  bool is_valid(char delimiter) {
    std::size_t end = in_.find('\n');
    const std::size_t wanted =
        csv_reference_count_delimiters(std::string_view(in_).substr(0, end), delimiter);
    if (wanted == 0) {
      return false;
    }
    while (end != std::string::npos) {
      const std::size_t begin = end + 1;
      end = in_.find('\n', begin);
      std::string_view line = std::string_view(in_).substr(begin, end - begin);
      if (end == begin) {
        line = std::string_view(in_).substr(begin + 1);  // an empty line: all the rest
      } else if (line.size() < 2) {
        continue;
      }
      const std::size_t count = csv_reference_count_delimiters(line, delimiter);
      if (count != wanted) {
        log("This line has " + std::to_string(count) + " delimiters, previous line had " +
            std::to_string(wanted) + " - NOT A CSV");
        return false;
      }
    }
    return true;
  }

  void test_cells(char delimiter) {
    std::string copy = in_.c_str();
    const char separators[] = {delimiter, '\0'};
    char* rest = nullptr;
    for (const char* cell = strtok_r(copy.data(), separators, &rest); cell != nullptr;
         cell = strtok_r(nullptr, separators, &rest)) {
      if (test_cell(cell)) {
        return;
      }
    }
  }

  bool test_cell(const std::string& cell) {
    std::string trimmed = cell;
    kvhlp_TrimWhitespace(trimmed.data());
    trimmed.resize(strlen(trimmed.c_str()));
    for (const char leading : {'=', '+', '-', '@'}) {
      if (trimmed[0] != leading || cell.size() < 2 || trimmed.c_str()[1] == leading) {
        continue;
      }
      log(std::string("Found Leading \"") + leading + "\" in cell \"" + trimmed + "\"");
      if (csv_reference_match(trimmed.c_str()) == 1) {
        log("regex match found characters");
        result_.reason = ("\"CSV-injection: " + cell + "\" detected").substr(0, 1023);
        log(result_.reason);
        result_.code = -202;
        return true;
      }
      log("regex match found only digits");
    }
    return false;
  }

  std::string in_;
  csv_reference_result result_;
};

}  // namespace

csv_reference_result csv_reference_check(std::string_view bytes) {
  return reference(bytes).run();
}

std::size_t csv_reference_count_delimiters(std::string_view bytes, char delimiter) {
  std::size_t count = 0;
  bool in_double = false;
  bool in_single = false;
  bool skip = false;
  std::size_t i = 0;
  while (i < bytes.size()) {
    const char byte = bytes[i];
    if (byte == '\\') {
      i += 2;
      continue;
    }
    bool is_quote = false;
    if (byte == '"' && !in_single) {
      if (!in_double) {
        in_double = true;
        skip = true;
        ++i;
        continue;
      }
      in_double = false;
      is_quote = true;
    }
    if (byte == '\'' && !in_double) {
      if (!in_single) {
        in_single = true;
        skip = true;
        ++i;
        continue;
      }
      in_single = false;
      is_quote = true;
    }
    if (!is_quote && skip) {
      ++i;
      continue;
    }
    if (byte == delimiter) {
      ++count;
    }
    skip = false;
    ++i;
  }
  return count;
}

int csv_reference_match(const char* cell) {
  static const compiled_pattern pattern;
  return tre_regexec(&pattern.regex, cell, 0, nullptr, 0) == REG_OK ? 1 : 0;
}
