// Address texts: URL split, account and address, and the wildcard and text helpers on the same
// bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/kvhlp-string.h"
#include "common/kvhlp_network.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const kvhlp_url_ptr url{kvhlp_url_new()};
  if (kvhlp_split_url(url.get(), text.c_str()) == 0 &&
      (*url->host == '\0' || *url->port == '\0' || *url->path != '/')) {
    std::abort();  // host, port and path are never empty
  }
  const kvhlp_url_auth_ptr parts{kvhlp_url_auth_new()};
  static_cast<void>(kvhlp_parse_url_auth(parts.get(), text.c_str()));
  std::string trimmed = text;
  if (std::strlen(kvhlp_TrimWhitespace(trimmed.data())) == 0 && *text.c_str() != '\0') {
    std::abort();  // one character stays
  }
  std::string quoted(size + 1, '\0');
  const char* end = nullptr;
  static_cast<void>(kvhlp_GetQuotedText(text.data(), size, quoted.data(), &end));
  if (size < 200 && kvhlp_WildcardTextMatch(text.c_str(), "*", 1, '\0') != 1) {
    std::abort();
  }
  const std::size_t half = std::strlen(text.c_str()) / 2;
  static_cast<void>(
      kvhlp_WildcardTextMatch(text.c_str() + half, text.substr(0, half).c_str(), 0, ';'));
  return 0;
}
