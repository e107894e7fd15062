#include "file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>

namespace kv_suite {
namespace {

[[noreturn]] void s_fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

bool s_write_all(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    s_fail(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_private_file(const std::string& path, std::string_view content) {
  std::string temporary = path + ".XXXXXX";
  const int descriptor = ::mkstemp(temporary.data());  // mode 0600
  if (descriptor < 0)
    s_fail(path);
  const bool written = s_write_all(descriptor, content);
  const int error = errno;
  if (::close(descriptor) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    if (!written)
      errno = error;
    const int failure = errno;
    ::unlink(temporary.c_str());
    errno = failure;
    s_fail(path);
  }
}

}  // namespace kv_suite
