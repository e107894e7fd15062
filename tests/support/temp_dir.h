#pragma once
// A temporary folder for the life of the object.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class temp_dir {
 public:
  temp_dir() : path_("/tmp/kv-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("no temporary folder");
    }
  }
  ~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string read_whole_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_whole_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}
