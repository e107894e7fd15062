#pragma once
// Users and their passwords, kept as salted libsodium hashes (Argon2id) in a JSON file of the form
// {"user": "hash", ...}. A hash costs tens of milliseconds, so each verdict is remembered under a
// keyed digest of the credential: reconnects and retries cost nothing. One thread at a time.

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace kv_suite {

class password_store {
 public:
  password_store();

  // Reads the file; throws std::runtime_error when it cannot be read or is of another form.
  void load(const std::string& path);
  // Writes all users, file mode 0600; throws std::runtime_error.
  void save(const std::string& path) const;

  // Adds a user or replaces its password; throws std::runtime_error when memory is short.
  void set(const std::string& user, std::string_view password);
  // Whether the user exists and the password is its own.
  [[nodiscard]] bool check(const std::string& user, std::string_view password);

  [[nodiscard]] bool contains(const std::string& user) const { return hashes_.contains(user); }
  // How many checks computed a hash rather than finding the verdict in memory.
  [[nodiscard]] std::uint64_t hashes_computed() const { return hashes_computed_; }

 private:
  using digest = std::array<unsigned char, 32>;
  [[nodiscard]] digest digest_of(const std::string& user, std::string_view password) const;

  digest key_{};  // of the digests; random, of this process only
  std::map<std::string, std::string> hashes_;
  std::map<digest, bool> verdicts_;  // bounded: emptied when full
  std::uint64_t hashes_computed_ = 0;
};

// Random password of letters and digits, 32 characters.
[[nodiscard]] std::string make_password();

}  // namespace kv_suite
