// An INI file: parsing, lookups and scans.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/kv_config_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ini_ptr ini{ini_parse({reinterpret_cast<const char*>(data), size})};
  char text[16];
  std::int32_t number = 0;
  std::int64_t big = 0;
  for (const char* const section : {static_cast<const char*>(nullptr), "", "s"}) {
    for (const char* const key : {"k", "n", "text"}) {
      const char* const value = ini_get(ini.get(), section, key);
      if (value != nullptr && *value == '\0' && std::memchr(data, '\0', size) == nullptr) {
        std::abort();  // an empty value defines nothing
      }
      static_cast<void>(GetStringFromConfigFile(ini.get(), section, key, text, sizeof text));
      static_cast<void>(GetIntFromConfigFile(ini.get(), section, key, &number));
      static_cast<void>(GetLongFromConfigFile(ini.get(), section, key, &big));
    }
  }
  return 0;
}
