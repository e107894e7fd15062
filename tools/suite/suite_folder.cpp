#include "suite_folder.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "file_helpers.h"

namespace kv_suite {

suite_folder::suite_folder(const std::string& path) {
  std::filesystem::create_directories(std::filesystem::absolute(path).parent_path());
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  path_ = std::filesystem::canonical(path).string();
}

certificate_paths suite_folder::certificates() const {
  return {path_ + "/ca.pem", path_ + "/server.pem", path_ + "/server.key"};
}

void suite_folder::prepare_users(const std::string& user, password_store& passwords) const {
  if (std::filesystem::exists(users_file()))
    passwords.load(users_file());
  if (passwords.contains(user))
    return;
  const std::string password = make_password();
  passwords.set(user, password);
  write_private_file(password_file(), password + "\n");
  write_private_file(user_file(), user + "\n");
  passwords.save(users_file());
}

}  // namespace kv_suite
