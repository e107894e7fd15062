// Tag extraction on any bytes: every tag as the plain form gives it, the buffer never overrun and
// always ended, and the position always moving on.
#include <cstdlib>
#include <string>

#include "activecontent/kvactivecontent_getNextTag.h"
#include "activecontent/kvactivecontent_markup.h"
#include "common/kv_guard.h"
#include "support/markup_reference.h"

namespace {

void s_require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text{reinterpret_cast<const char*>(data), size};
  // A small buffer, so that it has to grow.
  std::size_t buffer_size = 8;
  kv_text_ptr buffer{static_cast<char*>(std::malloc(buffer_size))};
  std::size_t position = 0;
  std::size_t expected_position = 0;
  std::string expected;
  bool more = true;
  while (more) {
    const std::size_t before = position;
    char* tag = buffer.release();
    std::size_t length = 0;
    const int rc =
        kvactivecontent_getNextTag(text.data(), size, &position, &tag, &length, &buffer_size);
    buffer.reset(tag);
    more = markup_reference_next_tag(text, expected_position, expected);
    s_require(rc == (more ? 1 : 0));
    s_require(position == expected_position && position >= before && position <= size);
    s_require(!more || (std::string(tag, length) == expected && tag[length] == '\0'));
    s_require(!more || length + 2 < buffer_size);
    std::string bare(length + 1, 'x');
    bare.resize(kvactivecontent_removeQuotedText(tag, more ? length : 0, bare.data()));
    s_require(!more || bare == markup_reference_remove_quoted(expected));
  }
  return 0;
}
