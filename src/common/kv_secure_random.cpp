#include "common/kv_secure_random.h"

#include <sodium.h>

#include <algorithm>
#include <string_view>

#include "logging/log-helper.h"

namespace {

constexpr std::string_view kAlphabet =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

}  // namespace

std::string kv_secure_random_text(std::size_t n) {
  if (sodium_init() < 0) {  // may be called again and by several threads
    KV_LOG_ERROR("Failed to initialize the random generator");
    return {};
  }
  std::string text(n, '\0');
  std::ranges::generate(text, [] { return kAlphabet[randombytes_uniform(kAlphabet.size())]; });
  return text;
}
