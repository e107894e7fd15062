#include "support/pdf_reference.h"

#include <cstdio>
#include <optional>

namespace {

// C locale, bytes as they are.
bool s_is_printable(unsigned char byte) {
  return byte >= 0x20 && byte < 0x7f;
}
bool s_is_control(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

bool s_is_hex(unsigned char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'f') ||
         (byte >= 'A' && byte <= 'F');
}

int s_hex_value(unsigned char byte) {
  if (byte <= '9') {
    return byte - '0';
  }
  return byte >= 'a' ? byte - 'a' + 10 : byte - 'A' + 10;
}

char s_fold(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

bool s_stands_at(std::string_view text, std::size_t at, std::string_view word) {
  if (at + word.size() > text.size()) {
    return false;
  }
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (text[at + i] != word[i]) {
      return false;
    }
  }
  return true;
}

bool s_stands_caseless_at(std::string_view text, std::size_t at, std::string_view word) {
  if (at + word.size() > text.size()) {
    return false;
  }
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (s_fold(text[at + i]) != s_fold(word[i])) {
      return false;
    }
  }
  return true;
}

// As far as a printed line shows it.
std::string s_as_text(const std::string& bytes) {
  return {bytes.c_str()};
}

class reference {
 public:
  reference(std::string_view bytes, const kv_pdf_keyword_t* table) : in_(bytes), table_(table) {}

  pdf_reference_result run() {
    while (step()) {
    }
    result_.code = result_.match_index != -1 ? -202 : 0;
    log("DEBUG", "Returning " + std::to_string(result_.code));
    return result_;
  }

 private:
  void log(const char* level, const std::string& text) {
    result_.log.push_back(std::string(level) + " " + text);
  }

  // One object; false when the scan is finished.
  bool step() {
    std::size_t object = p_;
    while (true) {
      if (object + 2 >= in_.size()) {
        return false;
      }
      if (s_stands_at(in_, object, "obj")) {
        break;
      }
      ++object;
    }
    std::size_t line = object;
    while (true) {
      if (line == p_) {
        return false;
      }
      if (in_[line] == '\r' || in_[line] == '\n') {
        break;
      }
      --line;
    }
    const std::optional<std::size_t> closing = find_closing(line);
    if (!closing) {
      log("WARN", "No corresponding closing tag found");
      p_ = line + 1;
      return true;
    }
    p_ = *closing + 5;
    char offsets[80];
    static_cast<void>(std::snprintf(offsets, sizeof offsets,
                                    "object from offset 0x%x to offset 0x%x",
                                    static_cast<unsigned>(line), static_cast<unsigned>(p_)));
    log("TRACE", offsets);
    std::string object_text;
    for (std::size_t i = line; i < p_; ++i) {
      if (in_[i] != '\0') {
        object_text += in_[i];
      }
    }
    return analyse(object_text);
  }

  [[nodiscard]] std::optional<std::size_t> find_closing(std::size_t from) const {
    for (std::size_t i = from; i + 5 < in_.size(); ++i) {
      const auto byte = static_cast<unsigned char>(in_[i]);
      if (!s_is_printable(byte) && !s_is_control(byte)) {
        ++i;
      }
      if (s_stands_at(in_, i, "endobj")) {
        return i;
      }
    }
    return std::nullopt;
  }

  // False when a keyword ends the scan.
  bool analyse(const std::string& object_text) {
    const std::optional<std::string> extracted = extract(object_text);
    if (!extracted) {
      return true;
    }
    std::string dictionary = *extracted;
    log("TRACE", "Analyzing dictionary " + s_as_text(dictionary));
    if (dictionary.find('#') != std::string::npos) {
      log("DEBUG", "Encoded dictionary entry found");
      const std::string before = dictionary;
      if (canonicalise(before, dictionary)) {
        log("DEBUG",
            "Converted \"" + s_as_text(before) + "\" to \"" + s_as_text(dictionary) + "\"");
      }
    }
    return !match(dictionary);
  }

  std::optional<std::string> extract(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size() && text[i] != '<') {
      ++i;
    }
    std::string collected;
    int depth = 0;
    while (i < text.size()) {
      if (s_stands_at(text, i, "<<")) {
        ++depth;
        collected += "<<";
        i += 2;
      } else if (depth > 0 && s_stands_at(text, i, ">>")) {
        --depth;
        collected += ">>";
        i += 2;
        if (depth == 0) {
          log("DEBUG", "Dictionary: " + s_as_text(collected));
          return collected;
        }
      } else {
        if (depth > 0) {
          collected += text[i];
        }
        ++i;
      }
    }
    log("TRACE", "PDFExtractDictionary(): No dictionary found");
    return std::nullopt;
  }

  bool canonicalise(const std::string& in, std::string& out) {
    out.clear();
    bool inside = false;
    bool replaced = false;
    std::size_t i = 0;
    while (i < in.size() - 2) {
      if (s_stands_at(in, i, "<<")) {
        inside = true;
      } else if (s_stands_at(in, i, ">>")) {
        inside = false;
      }
      if (inside && in[i] == '#' && s_is_hex(static_cast<unsigned char>(in[i + 1])) &&
          s_is_hex(static_cast<unsigned char>(in[i + 2]))) {
        log("TRACE", "Found hex encoded character");
        out += static_cast<char>(s_hex_value(static_cast<unsigned char>(in[i + 1])) * 16 +
                                 s_hex_value(static_cast<unsigned char>(in[i + 2])));
        replaced = true;
        i += 3;
      } else {
        out += in[i];
        ++i;
      }
    }
    out += in.substr(i);
    return replaced;
  }

  bool match(const std::string& dictionary) {
    for (std::int32_t index = 0; table_[index].keyword[0] != '\0'; ++index) {
      const std::string_view keyword = table_[index].keyword;
      std::size_t at = 0;
      while (at < dictionary.size() && !s_stands_caseless_at(dictionary, at, keyword)) {
        ++at;
      }
      const std::size_t behind = at + keyword.size();
      if (at == dictionary.size() || behind >= dictionary.size()) {
        continue;
      }
      if (std::string_view("[\\]\n\r ()/:").find(dictionary[behind]) != std::string_view::npos) {
        log("DEBUG", "\"" + std::string(keyword) + "\" found in " + s_as_text(dictionary));
        result_.match_index = index;
        return true;
      }
    }
    return false;
  }

  std::string_view in_;
  const kv_pdf_keyword_t* table_;
  std::size_t p_ = 0;
  pdf_reference_result result_;
};

}  // namespace

pdf_reference_result pdf_reference_scan(std::string_view bytes, const kv_pdf_keyword_t* table) {
  return reference(bytes, table).run();
}

int pdf_reference_is_encrypted(std::string_view bytes) {
  if (bytes.size() < 7) {
    return 0;
  }
  std::size_t trailer = bytes.size() - 7;
  while (!s_stands_at(bytes, trailer, "trailer")) {
    if (trailer == 0) {
      return 0;
    }
    --trailer;
  }
  for (std::size_t i = trailer; i + 8 < bytes.size(); ++i) {
    if (s_stands_at(bytes, i, "/Encrypt")) {
      return 1;
    }
  }
  return 0;
}
