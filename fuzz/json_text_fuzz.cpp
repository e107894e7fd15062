// A JSON text as the protocol reads it: parse, read keys, print.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/kv_json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const kv_json_ptr object =
      kv_json_parse({reinterpret_cast<const char*>(data), size}, "fuzz", "fuzz", 0);
  if (!object) {
    return 0;
  }
  std::string text;
  std::int32_t number = 0;
  std::int64_t big = 0;
  for (const char* const key : {"Command", "a", ""}) {
    if (kv_json_get_text(object.get(), key, text) == kv_json_presence::present && text.empty()) {
      std::abort();
    }
    static_cast<void>(kv_json_get_int(object.get(), key, number));
    static_cast<void>(kv_json_get_int64(object.get(), key, big));
  }
  for (const int flags : {KV_JSON_COMPACT, KV_JSON_SPACED, KV_JSON_PRETTY_PLAIN_SLASH}) {
    const kv_text_ptr printed = kv_json_print(object.get(), flags);
    if (!printed || !kv_json_parse(printed.get(), "fuzz", "fuzz", 0)) {
      std::abort();  // what is printed can be parsed
    }
  }
  return 0;
}
