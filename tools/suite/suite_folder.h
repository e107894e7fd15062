#pragma once
// The files of one suite in its folder: made on the first start, found again on the next. Throws
// std::runtime_error with a text for the person at the screen.

#include <string>

#include "certificates.h"
#include "password_store.h"

namespace kv_suite {

class suite_folder {
 public:
  // Makes the folder (0700) when it is missing.
  explicit suite_folder(const std::string& path);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] certificate_paths certificates() const;
  [[nodiscard]] std::string users_file() const { return path_ + "/users.json"; }
  [[nodiscard]] std::string password_file() const { return path_ + "/password"; }
  [[nodiscard]] std::string definitions_file() const { return path_ + "/definitions.json"; }
  [[nodiscard]] std::string listen_file() const { return path_ + "/listen"; }
  [[nodiscard]] std::string url_file() const { return path_ + "/url"; }
  [[nodiscard]] std::string user_file() const { return path_ + "/user"; }

  // Reads the users into the store; makes `user` with a random password when it is not among them
  // and leaves the password, in clear, in the password file (0600).
  void prepare_users(const std::string& user, password_store& passwords) const;

 private:
  std::string path_;
};

}  // namespace kv_suite
