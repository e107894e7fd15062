// The entity decoder on any bytes: in place or into a buffer, whole or through the surface, and as
// the plain form has it.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "activecontent/kvactivecontent_html_decode_entities.h"
#include "activecontent/kvactivecontent_markup.h"
#include "support/markup_reference.h"

namespace {

void s_require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<char> output(size);
  const std::size_t length = kv_decode_references(text, output.data());
  const std::string decoded(output.data(), length);
  s_require(length <= size);
  s_require((kv_find_reference(text) == std::string::npos) == (decoded == text));

  std::vector<char> in_place(text.begin(), text.end());
  s_require(kv_decode_references({in_place.data(), size}, in_place.data()) == length);
  s_require(std::string(in_place.data(), length) == decoded);

  std::string surface = text.c_str();  // up to the first zero byte
  const std::string expected = markup_reference_decode(surface);
  s_require(kvactivecontent_decode_html_entities_utf8(surface.data(), nullptr) == expected.size());
  s_require(surface.compare(0, expected.size(), expected) == 0);
  return 0;
}
