#include <magic.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "chain_service.h"
#include "common/kv_guard.h"

namespace kv_suite {
namespace {

using magic_ptr = std::unique_ptr<magic_set, kv_free_pointer<magic_close>>;

// What decides on a type stands at the front; a segment's bytes are copied, since they may change
// while the library reads them.
constexpr std::size_t kMaxExamined = std::size_t{1} << 20;
constexpr std::string_view kNotKnown = "???";

magic_ptr s_open() {
  magic_ptr cookie{magic_open(MAGIC_NONE)};
  if (cookie && magic_load(cookie.get(), nullptr) != 0)
    cookie.reset();
  return cookie;
}

std::string s_ask(magic_t cookie, int flags, std::string_view bytes) {
  magic_setflags(cookie, flags);
  const char* text = magic_buffer(cookie, bytes.data(), bytes.size());
  return text == nullptr ? "" : text;
}

// The first of the list "jpeg/jpg/jpe".
std::string s_extension(const std::string& list) {
  return list.empty() || list == kNotKnown ? "" : "." + list.substr(0, list.find('/'));
}

}  // namespace

std::optional<content_type> find_content_type(std::span<const char> bytes) {
  thread_local const magic_ptr cookie = s_open();
  if (!cookie)
    return std::nullopt;
  const std::string front(bytes.data(), std::min(bytes.size(), kMaxExamined));
  return content_type{.mime_type = s_ask(cookie.get(), MAGIC_MIME_TYPE, front),
                      .mime_encoding = s_ask(cookie.get(), MAGIC_MIME_ENCODING, front),
                      .text = s_ask(cookie.get(), MAGIC_NONE, front),
                      .extension = s_extension(s_ask(cookie.get(), MAGIC_EXTENSION, front))};
}

}  // namespace kv_suite
