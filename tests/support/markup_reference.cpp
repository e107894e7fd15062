#include "support/markup_reference.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "activecontent/kvactivecontent_html_named_entities.h"
#include "activecontent/kvactivecontent_html_xml_svg_eventhandlers.h"

namespace {

constexpr std::array<const char*, 7> kBannedWords{"script", "object", "javascript", "xsl",
                                                  "applet", "embed",  "?php"};
constexpr std::string_view kPatternLiteral = "javascript:";

char s_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
std::string s_lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    c = s_lower(c);
  }
  return result;
}

bool s_is_space(char c) {
  return c != '\0' && std::strchr(" \t\n\f\r/", c) != nullptr;
}
bool s_is_quote(char c) {
  return c == '"' || c == '\'';
}
bool s_is_dropped(char c) {
  return c == '\r' || c == '\n' || c == '\0';
}

bool s_contains(std::string_view text, std::string_view word) {
  return s_lower(text).find(s_lower(word)) != std::string::npos;
}

void s_append_utf8(std::string& out, unsigned long value) {
  const auto byte = [](unsigned long bits) { return static_cast<char>(bits); };
  if (value < 0x80) {
    out += byte(value);
  } else if (value < 0x800) {
    out += byte(0xC0 | (value >> 6));
    out += byte(0x80 | (value & 0x3F));
  } else if (value < 0x10000) {
    out += byte(0xE0 | (value >> 12));
    out += byte(0x80 | ((value >> 6) & 0x3F));
    out += byte(0x80 | (value & 0x3F));
  } else {
    out += byte(0xF0 | (value >> 18));
    out += byte(0x80 | ((value >> 12) & 0x3F));
    out += byte(0x80 | ((value >> 6) & 0x3F));
    out += byte(0x80 | (value & 0x3F));
  }
}

// The text between "&" and ";" as a number reference; false when it is none.
bool s_decode_number(std::string_view body, std::string& out) {
  if (body.empty() || body[0] != '#') {
    return false;
  }
  body.remove_prefix(1);
  const bool hexadecimal = !body.empty() && (body[0] == 'x' || body[0] == 'X');
  if (hexadecimal) {
    body.remove_prefix(1);
  }
  const std::string digits = hexadecimal ? "0123456789abcdef" : "0123456789";
  unsigned long value = 0;
  for (const char c : body) {
    const std::size_t digit = digits.find(s_lower(c));
    if (digit == std::string::npos) {
      return false;
    }
    value = std::min(value * digits.size() + digit, 0x110000UL);
  }
  if (body.empty() || value >= 0x110000) {
    return false;
  }
  s_append_utf8(out, value);
  return true;
}

bool s_decode_reference(std::string_view body, std::string& out) {
  if (s_decode_number(body, out)) {
    return true;
  }
  const std::string name = std::string(body) + ";";
  for (const auto& entity : NAMED_ENTITIES) {
    if (entity.name == name) {
      out += entity.text;
      return true;
    }
  }
  return false;
}

// Where a comment ends (behind its ">") of which "!--" has been read, or the end of the text.
std::size_t s_skip_comment(std::string_view text, std::size_t behind) {
  // Hyphens side by side before the position looked at: all of them, and those behind "!--".
  int all = 2;
  int own = 0;
  char previous = '-';
  bool bang_counts = false;  // the previous byte is a "!" behind two hyphens of the comment's own
  for (std::size_t i = behind; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '>' && ((previous == '-' && all >= 2) || (previous == '!' && bang_counts))) {
      return i + 1;
    }
    bang_counts = c == '!' && previous == '-' && own >= 2;
    if (c == '-') {
      ++all;
      ++own;
    } else if (!s_is_dropped(c)) {
      all = 0;
      own = 0;
    }
    previous = c;
  }
  return text.size();
}

struct scanner {
  const markup_reference_job& job;
  const markup_answer& answer;
  markup_outcome out;
  unsigned flags = 0;
  int children = 0;
  bool from_child = false;

  std::int32_t fail(const char* text) {
    out.error = text;
    return -1000;
  }
  std::int32_t block(const std::string& reason) {
    out.reason = reason.substr(0, 1023);
    return -202;
  }
  std::int32_t hand_on(const char* kind, const std::string& content) {
    ++children;
    const markup_child child{job.name + "/" + kind + "-" + std::to_string(children), content};
    out.children.push_back(child);
    const std::int32_t code = answer(child);
    from_child = code != 0;
    return code;
  }

  [[nodiscard]] std::vector<const char*> words() const;
  std::int32_t pattern(const std::string& tag);
  std::int32_t srcdoc(const std::string& tag);
  std::int32_t data_urls(const std::string& tag);
  std::int32_t data_url(const std::string& tag, std::size_t at);
  std::int32_t handlers(const std::string& tag);
  std::int32_t banned(std::string tag);
  std::int32_t analyse(const std::string& tag);
  std::int32_t check_tags(std::string_view text);
};

std::vector<const char*> scanner::words() const {
  if (job.html_script) {
    return {kBannedWords.begin(), kBannedWords.end()};
  }
  std::vector<const char*> result;
  if (job.xml_javascript) {
    result = {"script", "javascript"};
  }
  if (job.xml_xslt) {
    result.push_back("xsl");
  }
  return result;
}

// Does ".*javascript:.*" between two double quotes stand anywhere in the tag?
std::int32_t scanner::pattern(const std::string& tag) {
  const std::size_t open = tag.find('"');
  const std::size_t close = tag.rfind('"');
  if (open != std::string::npos) {
    const std::size_t word = tag.find(kPatternLiteral, open + 1);
    if (word != std::string::npos && word + kPatternLiteral.size() <= close) {
      return block("Active Content \"javascript\" found in markup");
    }
  }
  return 0;
}

std::int32_t scanner::srcdoc(const std::string& tag) {
  const std::string lower = s_lower(tag);
  for (std::size_t at = lower.find("srcdoc"); at != std::string::npos;
       at = lower.find("srcdoc", at + 1)) {
    std::size_t behind = at + 6;
    while (behind < tag.size() && s_is_space(tag[behind])) {
      ++behind;
    }
    if (at == 0 || !(s_is_space(tag[at - 1]) || s_is_quote(tag[at - 1])) || behind == tag.size() ||
        tag[behind] != '=') {
      continue;
    }
    ++behind;
    while (behind < tag.size() && s_is_space(tag[behind])) {
      ++behind;
    }
    if (behind == tag.size()) {
      continue;
    }
    const std::size_t close =
        s_is_quote(tag[behind]) ? tag.find(tag[behind], behind + 1) : std::string::npos;
    if (close == std::string::npos) {
      return fail("Failed to extract HTML5 srcdoc");
    }
    const std::string value = tag.substr(behind + 1, close - behind - 1);
    if (value.empty()) {
      continue;
    }
    const std::int32_t code = hand_on("srcdoc", value);
    if (code != 0) {
      return code;
    }
  }
  return 0;
}

std::string s_url_decode(const std::string& text) {
  const std::string digits = "0123456789abcdef";
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const std::size_t high = digits.find(s_lower(text[i + 1]));
      const std::size_t low = digits.find(s_lower(text[i + 2]));
      if (high != std::string::npos && low != std::string::npos) {
        result += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    result += text[i];
  }
  return result;
}

bool s_base64_decode(const std::string& text, std::string& out) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string digits;
  std::size_t padding = 0;
  for (const char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r') {
      continue;
    }
    if (c == '=') {
      ++padding;
      continue;
    }
    if (padding > 0 || alphabet.find(c) == std::string::npos) {
      return false;
    }
    digits += c;
  }
  const std::size_t left_over = digits.size() % 4;
  if (left_over == 1 || padding > (left_over == 0 ? 0 : 4 - left_over)) {
    return false;
  }
  unsigned bits = 0;
  int count = 0;
  for (const char c : digits) {
    bits = (bits << 6 | static_cast<unsigned>(alphabet.find(c))) & 0xFFFFFF;
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>(bits >> count);
    }
  }
  return true;
}

std::int32_t scanner::data_url(const std::string& tag, std::size_t at) {
  std::size_t before = at;
  while (before > 0 &&
         (tag[before - 1] == ' ' || tag[before - 1] == '\t' || tag[before - 1] == '\f')) {
    --before;
  }
  if (before == 0 || !s_is_quote(tag[before - 1])) {
    return 0;
  }
  const char quote = tag[before - 1];
  --before;
  while (before > 0 && s_is_space(tag[before - 1])) {
    --before;
  }
  if (before == 0 || tag[before - 1] != '=') {
    return 0;
  }
  const std::size_t close = tag.find(quote, at);
  if (close == std::string::npos) {
    return fail("Failed to extract data URL");
  }
  const std::size_t comma = tag.find(',', at);
  if (comma > close) {
    return 0;
  }
  std::string content = s_url_decode(tag.substr(comma + 1, close - comma - 1));
  if (s_contains(tag.substr(at + 5, comma - at - 5), "base64")) {
    std::string plain;
    if (!s_base64_decode(content, plain)) {
      return fail("Failed to extract data URL");
    }
    content = plain;
  }
  return content.empty() ? 0 : hand_on("data-url", content);
}

std::int32_t scanner::data_urls(const std::string& tag) {
  const std::string lower = s_lower(tag);
  for (std::size_t at = lower.find("data:"); at != std::string::npos;
       at = lower.find("data:", at + 1)) {
    const std::int32_t code = data_url(tag, at);
    if (code != 0) {
      return code;
    }
  }
  return 0;
}

std::int32_t scanner::handlers(const std::string& tag) {
  const std::string name = markup_reference_handler(tag);
  return name.empty() ? 0 : block("\"Inline event handler '" + name + "'\" detected in markup");
}

std::int32_t scanner::banned(std::string tag) {
  tag.erase(0, 1);
  const std::string lower = s_lower(tag);
  for (const std::string word : words()) {
    for (std::size_t at = lower.find(word); at != std::string::npos;
         at = lower.find(word, at + 1)) {
      if (markup_reference_is_isolated(tag, at, word.size())) {
        return block("\"" + word + "-tag\" detected in markup");
      }
    }
  }
  return 0;
}

std::int32_t scanner::analyse(const std::string& tag) {
  std::int32_t code = (flags & 1) != 0 ? pattern(tag) : 0;
  if (code == 0 && (flags & 2) != 0) {
    code = srcdoc(tag);
  }
  if (code == 0 && (flags & 4) != 0) {
    code = data_urls(tag);
  }
  if (code == 0 && (flags & 8) != 0 && job.html_eventhandler) {
    code = handlers(tag);
  }
  if (code == 0 && (flags & 16) != 0) {
    code = banned(markup_reference_remove_quoted(tag));
  }
  return code;
}

std::int32_t scanner::check_tags(std::string_view text) {
  const std::string lower = s_lower(text);
  const auto holds = [&](std::string_view word) { return lower.find(word) != std::string::npos; };
  flags |= (job.html_script || job.xml_javascript) && holds("javascript") ? 1U : 0U;
  if (job.html_script) {
    flags |= holds("srcdoc") ? 2U : 0U;
    flags |= holds("data:") ? 4U : 0U;
    for (const std::string_view name : HTMLEventHandlers) {
      flags |= !name.empty() && holds(s_lower(name)) ? 8U : 0U;
    }
  }
  for (const char* word : words()) {
    flags |= holds(word) ? 16U : 0U;
  }
  if (flags == 0) {
    return 0;
  }
  std::size_t position = 0;
  std::string tag;
  while (position < text.size() && markup_reference_next_tag(text, position, tag)) {
    const std::int32_t code = analyse(tag);
    if (code != -202 || from_child) {
      if (code != 0) {
        return code;
      }
      continue;
    }
    std::string stripped = tag;
    std::erase_if(stripped, s_is_space);
    if (!s_contains(stripped, "fontscript")) {
      return code;
    }
    out.reason.clear();
    out.error = "Found \"fontscript\" in a setting covered by an exception";
  }
  return 0;
}

}  // namespace

markup_outcome markup_reference_scan(const markup_reference_job& job, std::string_view bytes,
                                     const markup_answer& answer) {
  const std::string text = markup_reference_decode(bytes.substr(0, bytes.find('\0')));
  scanner scan{job, answer, {}};
  if (job.html_eventhandler && s_contains(text, ".addEventListener(")) {
    scan.out.code = scan.block("\"Event handler registration\" detected in markup");
    return scan.out;
  }
  const bool xml = s_contains(job.mime_type, "xml") && (job.xml_javascript || job.xml_xslt);
  if (job.html_script || xml) {
    scan.out.code = scan.check_tags(text);
  }
  return scan.out;
}

std::string markup_reference_decode(std::string_view text) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = text[at] == '&' ? text.find(';', at) : std::string_view::npos;
    if (end != std::string_view::npos &&
        s_decode_reference(text.substr(at + 1, end - at - 1), out)) {
      at = end + 1;
    } else {
      out += text[at++];
    }
  }
  return out;
}

bool markup_reference_next_tag(std::string_view text, std::size_t& position, std::string& tag) {
  while (true) {
    position = text.find('<', position);
    if (position == std::string_view::npos) {
      position = text.size();
      return false;
    }
    tag = "<";
    bool quoted = false;
    bool comment = false;
    for (++position; position < text.size() && !comment; ++position) {
      const char c = text[position];
      if (c == '"' && text[position - 1] != '\\') {
        quoted = !quoted;
      }
      if (c == '>' && !quoted) {
        ++position;
        return true;
      }
      if (!s_is_dropped(c)) {
        tag += c;
      }
      comment = tag.size() >= 3 && tag.ends_with("!--");
    }
    if (!comment) {
      return false;
    }
    position = s_skip_comment(text, position);
  }
}

std::string markup_reference_remove_quoted(std::string_view tag) {
  std::string out;
  bool quoted = false;
  for (std::size_t i = 0; i < tag.size(); ++i) {
    if (tag[i] == '"' && (i == 0 || tag[i - 1] != '\\')) {
      quoted = !quoted;
      out += tag[i];
    } else if (!quoted) {
      out += tag[i];
    }
  }
  return out;
}

bool markup_reference_is_isolated(std::string_view text, std::size_t position, std::size_t length) {
  const std::size_t behind = position + length;
  const bool before_fits = position == 0 || s_is_space(text[position - 1]) ||
                           s_is_quote(text[position - 1]) || text[position - 1] == '=';
  const bool behind_fits = behind >= text.size() || s_is_space(text[behind]) ||
                           s_is_quote(text[behind]) || text[behind] == '=' || text[behind] == ':';
  return before_fits && behind_fits;
}

std::string markup_reference_handler(std::string_view tag) {
  const std::string lower = s_lower(tag);
  for (const std::string_view name : HTMLEventHandlers) {
    const std::size_t at = name.empty() ? std::string::npos : lower.find(s_lower(name));
    if (at != std::string::npos && markup_reference_is_isolated(tag, at, name.size())) {
      return std::string(name);
    }
  }
  return {};
}
