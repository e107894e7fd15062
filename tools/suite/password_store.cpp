#include "password_store.h"

#include <json-c/json.h>
#include <sodium.h>

#include <stdexcept>

#include "common/kv_guard.h"
#include "file_helpers.h"

namespace kv_suite {
namespace {

// Wrong credentials are remembered too, or a client that retries one would hash without end; the
// bound keeps a guesser from filling the memory.
constexpr std::size_t kMaxVerdicts = 256;
constexpr std::size_t kPasswordLength = 32;

// Checked for users that do not exist, so that their refusal takes as long as a wrong password.
constexpr const char* kNobody = "";

}  // namespace

password_store::password_store() {
  if (sodium_init() < 0)
    throw std::runtime_error("libsodium cannot be initialised");
  randombytes_buf(key_.data(), key_.size());
  set(kNobody, make_password());
}

void password_store::load(const std::string& path) {
  const kv_json_ptr root{json_tokener_parse(read_file(path).c_str())};
  if (!json_object_is_type(root.get(), json_type_object)) {
    throw std::runtime_error(path + " is no JSON object of users");
  }
  json_object_object_foreach(root.get(), user, hash) {
    if (!json_object_is_type(hash, json_type_string)) {
      throw std::runtime_error(path + ": the hash of a user is no text");
    }
    hashes_[user] = json_object_get_string(hash);
  }
  verdicts_.clear();
}

void password_store::save(const std::string& path) const {
  const kv_json_ptr root{json_object_new_object()};
  for (const auto& [user, hash] : hashes_) {
    if (user != kNobody) {
      json_object_object_add(root.get(), user.c_str(), json_object_new_string(hash.c_str()));
    }
  }
  const char* text = json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PRETTY);
  write_private_file(path, std::string(text) + "\n");
}

void password_store::set(const std::string& user, std::string_view password) {
  std::string hash(crypto_pwhash_STRBYTES, '\0');
  if (crypto_pwhash_str(hash.data(), password.data(), password.size(),
                        crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
    throw std::runtime_error("no memory for a password hash");
  }
  hashes_[user] = hash.c_str();
  verdicts_.clear();
}

password_store::digest password_store::digest_of(const std::string& user,
                                                 std::string_view password) const {
  // The user's length stands in front, or two credentials could run together into one.
  std::string credential = std::to_string(user.size()) + ":" + user;
  credential += password;
  digest out{};
  crypto_generichash(out.data(), out.size(),
                     reinterpret_cast<const unsigned char*>(credential.data()), credential.size(),
                     key_.data(), key_.size());
  sodium_memzero(credential.data(), credential.size());
  return out;
}

bool password_store::check(const std::string& user, std::string_view password) {
  const digest credential = digest_of(user, password);
  if (const auto known = verdicts_.find(credential); known != verdicts_.end()) {
    return known->second;
  }
  const auto entry = hashes_.find(user);
  const bool exists = entry != hashes_.end() && user != kNobody;
  const std::string& hash = exists ? entry->second : hashes_.at(kNobody);
  ++hashes_computed_;
  const bool matches =
      crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
  if (verdicts_.size() >= kMaxVerdicts)
    verdicts_.clear();
  return verdicts_[credential] = exists && matches;
}

std::string make_password() {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::string password;
  while (password.size() < kPasswordLength) {
    password += kAlphabet[randombytes_uniform(static_cast<std::uint32_t>(kAlphabet.size()))];
  }
  return password;
}

}  // namespace kv_suite
