#include "scan_targets.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace kv_scan {
namespace {

namespace fs = std::filesystem;

constexpr const char* kStandardInput = "-";
constexpr std::size_t kReadBlock = 64 * 1024;
// Lengths travel as signed 32-bit numbers in places; nobody uploads more.
constexpr std::size_t kMaxObject = std::size_t{1} << 30;

struct descriptor {
  explicit descriptor(int opened) : number(opened) {}
  ~descriptor() {
    if (number > STDERR_FILENO)
      ::close(number);
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  int number;
};

std::runtime_error s_system_error() {
  return std::runtime_error(std::strerror(errno));
}

void s_walk(const fs::path& folder, std::vector<scan_target>& out) {
  std::error_code error;
  std::vector<fs::directory_entry> entries;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    entries.push_back(*entry);
  }
  if (error)
    out.push_back({folder.string(), error.message()});
  std::ranges::sort(entries);
  for (const fs::directory_entry& entry : entries) {
    std::error_code ignored;
    const fs::file_status status = entry.symlink_status(ignored);
    if (fs::is_directory(status))
      s_walk(entry.path(), out);
    if (fs::is_regular_file(status))
      out.push_back({entry.path().string(), {}});
  }
}

void s_add(const std::string& argument, bool recursive, std::vector<scan_target>& out) {
  std::error_code error;
  const fs::file_status status = fs::status(argument, error);
  if (argument == kStandardInput || fs::is_regular_file(status)) {
    out.push_back({argument, {}});
  } else if (fs::is_directory(status)) {
    if (recursive) {
      s_walk(argument, out);
    } else {
      out.push_back({argument, "Is a directory (use -r)"});
    }
  } else {
    out.push_back({argument, error ? error.message() : "Not a regular file"});
  }
}

std::vector<char> s_read_all(int from, std::size_t expected) {
  std::vector<char> data;
  std::size_t have = 0;
  data.resize(std::min(expected, kMaxObject) + 1);  // one more, so that the end is seen at once
  while (true) {
    if (have > kMaxObject)
      throw std::runtime_error("Larger than 1 GiB");
    if (have == data.size())
      data.resize(have + std::max(have, kReadBlock));
    const ssize_t count = ::read(from, data.data() + have, data.size() - have);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      throw s_system_error();
    if (count == 0)
      break;
    have += static_cast<std::size_t>(count);
  }
  data.resize(have);
  return data;
}

}  // namespace

std::vector<scan_target> collect_targets(const std::vector<std::string>& arguments,
                                         bool recursive) {
  std::vector<scan_target> targets;
  for (const std::string& argument : arguments)
    s_add(argument, recursive, targets);
  return targets;
}

loaded_object load_object(const std::string& path, const file_kind_reader& kinds) {
  loaded_object object;
  if (path == kStandardInput) {
    object.data = s_read_all(STDIN_FILENO, kReadBlock);
    object.kind = kinds.of_bytes(object.data);
    return object;
  }
  // Not blocking, in case the name became a pipe since it was looked at.
  const descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (file.number < 0 || ::fstat(file.number, &status) != 0)
    throw s_system_error();
  if (!S_ISREG(status.st_mode))
    throw std::runtime_error("Not a regular file");
  object.data = s_read_all(file.number, static_cast<std::size_t>(status.st_size));
  object.kind = kinds.of_descriptor(file.number);
  return object;
}

}  // namespace kv_scan
