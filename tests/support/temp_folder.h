#pragma once
// A folder of its own for a test, removed with everything in it.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class temp_folder {
 public:
  temp_folder() {
    std::string path = (std::filesystem::temp_directory_path() / "kv-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) {
      throw std::runtime_error("no temporary folder");
    }
    path_ = path;
  }
  ~temp_folder() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  temp_folder(const temp_folder&) = delete;
  temp_folder& operator=(const temp_folder&) = delete;

  [[nodiscard]] std::string path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};
