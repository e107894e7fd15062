// The exact search for DDE fields against the regular expressions themselves, run over the whole
// text: same answer for each of the three.
#include <cstdlib>
#include <string>

#include "activecontent/kvactivecontent_dde.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text{reinterpret_cast<const char*>(data), size};
  for (const kv_dde_pattern pattern : {KV_DDE_SIMPLE, KV_DDE_LINK, KV_DDE_AUTO}) {
    const kv_dde_rule& rule = kv_dde_rule_of(pattern);
    const int expected = s_match_regex(rule.pattern, rule.name, text.data(), text.size());
    const auto stretch = kv_dde_find(text)[pattern];
    if (stretch.has_value() != (expected == 1)) {
      std::abort();
    }
    if (stretch && s_match_regex(rule.pattern, rule.name, stretch->data(), stretch->size()) != 1) {
      std::abort();
    }
  }
  return 0;
}
