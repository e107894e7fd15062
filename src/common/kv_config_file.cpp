#include "common/kv_config_file.h"

#include <czmq.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "common/kv_time.h"
#include "logging/log-helper.h"

struct ini_entry {
  std::size_t section;  // index: a name is kept once, however many entries its section has
  std::string key;
  std::string value;
};

struct ini_t {
  std::vector<std::string> sections{""};  // each time a section is opened; first the nameless one
  std::vector<ini_entry> entries;         // in file order
};

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::uint64_t kIteratorWaitMs = 500;
constexpr int kIteratorPollMs = 10;

struct file_closer {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

char s_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view s_trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

char s_unescape(char c) {
  switch (c) {
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'n':
      return '\n';
    default:
      return c;
  }
}

// What stands behind an opening quote, up to the closing one, CR or the line's end.
std::string s_quoted(std::string_view text) {
  std::string value;
  for (std::size_t i = 0; i < text.size() && text[i] != '"' && text[i] != '\r'; ++i) {
    const bool escape = text[i] == '\\' && i + 1 < text.size() && text[i + 1] != '\r';
    value.push_back(escape ? s_unescape(text[++i]) : text[i]);
  }
  return value;
}

std::string s_value(std::string_view text) {
  text = s_trim(text);
  return text.starts_with('"') ? s_quoted(text.substr(1))
                               : std::string(s_trim(text.substr(0, text.find(';'))));
}

// One line: a section, an entry, or nothing.
void s_parse_line(std::string_view line, ini_t& ini) {
  line = s_trim(line);
  if (line.starts_with('[')) {
    const std::string_view name = line.substr(1);
    ini.sections.emplace_back(name.substr(0, name.find(']')));
    return;
  }
  const std::size_t end_of_key = line.find_first_of("=;");
  if (end_of_key == std::string_view::npos || line[end_of_key] == ';') {
    return;
  }
  const std::string_view key = s_trim(line.substr(0, end_of_key));
  std::string value = s_value(line.substr(end_of_key + 1));
  if (!key.empty() && !value.empty()) {
    ini.entries.push_back({ini.sections.size() - 1, std::string(key), std::move(value)});
  }
}

bool s_read_file(const char* path, std::string& out) {
  const std::unique_ptr<std::FILE, file_closer> file{std::fopen(path, "rbe")};
  if (!file || std::fseek(file.get(), 0, SEEK_END) != 0) {
    return false;
  }
  const long size = std::ftell(file.get());
  // The position of a folder's end is no size.
  if (size < 0 || size == INT64_MAX || std::fseek(file.get(), 0, SEEK_SET) != 0) {
    return false;
  }
  out.resize(static_cast<std::size_t>(size));
  return std::fread(out.data(), 1, out.size(), file.get()) == out.size();
}

// Whether the value of a key was scanned; the absence of a key is no message.
bool s_scan(const char* function, const ini_t* ini, const char* section, const char* key,
            const char* format, void* out) {
  const char* const value = ini_get(ini, section, key);
  if (value == nullptr) {
    return false;
  }
  if (std::sscanf(value, format, out) == 1) {
    return true;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, function, "Parameter [%s] - %s not found ",
            section == nullptr ? "" : section, key);
  return false;
}

void s_free_parameter(void* element) {
  auto* const parameter = static_cast<kv_config_parameter_t*>(element);
  if (parameter != nullptr) {
    std::free(parameter->name);
    std::free(parameter->value);
    std::free(parameter);
  }
}

bool s_start_iterator(list_t* list) {
  const std::uint64_t start = kv_current_time_ms();
  while (list_iterator_start(list) != 0) {
    if (kv_timeout_expired(start, kIteratorWaitMs)) {
      return false;
    }
    zclock_sleep(kIteratorPollMs);
  }
  return true;
}

}  // namespace

ini_t* ini_load(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  try {
    std::string text;
    return s_read_file(path, text) ? ini_parse(text) : nullptr;
  } catch (const std::exception&) {
    return nullptr;  // no memory for the file
  }
}

ini_t* ini_parse(std::string_view text) {
  try {
    auto ini = std::make_unique<ini_t>();
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      s_parse_line(text.substr(0, end), *ini);
      text.remove_prefix(std::min(end + 1, text.size()));
    }
    return ini.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void ini_free(ini_t** ini) {
  if (ini != nullptr) {
    delete *ini;
    *ini = nullptr;
  }
}

const char* ini_get(const ini_t* ini, const char* section, const char* key) {
  if (ini == nullptr || key == nullptr) {
    return nullptr;
  }
  const auto found = std::ranges::find_if(ini->entries, [=](const ini_entry& entry) {
    return (section == nullptr || strcmpci(ini->sections[entry.section].c_str(), section) == 0) &&
           strcmpci(entry.key.c_str(), key) == 0;
  });
  return found == ini->entries.end() ? nullptr : found->value.c_str();
}

int ini_sget(const ini_t* ini, const char* section, const char* key, const char* scan_format,
             void* out) {
  const char* const value = ini_get(ini, section, key);
  if (value == nullptr || out == nullptr) {
    return 0;
  }
  if (scan_format == nullptr) {
    *static_cast<const char**>(out) = value;
  } else {
    std::sscanf(value, scan_format, out);
  }
  return 1;
}

int GetStringFromConfigFile(const ini_t* ini, const char* section, const char* key, char* out,
                            std::size_t size) {
  if (out == nullptr || size == 0) {
    return 0;
  }
  std::memset(out, 0, size);
  // The width is what keeps a long word inside out.
  const std::string format = "%" + std::to_string(std::min<std::size_t>(size - 1, INT32_MAX)) + "s";
  if (size == 1 || !s_scan(__func__, ini, section, key, format.c_str(), out)) {
    return 0;
  }
  KV_LOG_TRACE("Read \"%s\" for [%s] - %s", out, section == nullptr ? "" : section, key);
  return 1;
}

int GetIntFromConfigFile(const ini_t* ini, const char* section, const char* key,
                         std::int32_t* out) {
  if (out == nullptr || !s_scan(__func__, ini, section, key, "%" SCNd32, out)) {
    return 0;
  }
  KV_LOG_TRACE("Read \"%d\" for [%s] - %s", *out, section == nullptr ? "" : section, key);
  return 1;
}

int GetLongFromConfigFile(const ini_t* ini, const char* section, const char* key,
                          std::int64_t* out) {
  if (out == nullptr || !s_scan(__func__, ini, section, key, "%" SCNd64, out)) {
    return 0;
  }
  KV_LOG_TRACE("Read \"%ld\" for [%s] - %s", *out, section == nullptr ? "" : section, key);
  return 1;
}

int strcmpci(const char* a, const char* b) {
  for (;; ++a, ++b) {
    const int difference =
        static_cast<unsigned char>(s_lower(*a)) - static_cast<unsigned char>(s_lower(*b));
    if (difference != 0 || *a == '\0') {
      return difference;
    }
  }
}

int kv_config_free_list(list_t* config) {
  if (config == nullptr) {
    KV_LOG_ERROR("NULL pointer received config=%p", static_cast<void*>(config));
    return -1;
  }
  if (!s_start_iterator(config)) {
    return -1;
  }
  while (list_iterator_hasnext(config) == 1) {
    s_free_parameter(list_iterator_next(config));
  }
  list_iterator_stop(config);
  list_destroy(config);
  return 0;
}
