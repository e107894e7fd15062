#include "common/kvhlp_buffer_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <span>

#include "common/KVstrerror.h"
#include "logging/log-helper.h"

namespace {

constexpr mode_t kNewFileMode = 0666;

// A descriptor whose close can be asked for its result, and happens in any case.
class open_file {
 public:
  open_file(const char* path, int flags)
      : descriptor_(open(path, flags | O_CLOEXEC, kNewFileMode)) {}
  ~open_file() { static_cast<void>(finish()); }
  open_file(const open_file&) = delete;
  open_file& operator=(const open_file&) = delete;

  [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }
  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] bool finish() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor < 0 || close(descriptor) == 0;
  }

 private:
  int descriptor_;
};

bool s_write_all(int descriptor, std::span<const std::uint8_t> rest) {
  while (!rest.empty()) {
    const ssize_t written = write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    rest = rest.subspan(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

bool s_read_all(int descriptor, std::span<std::uint8_t> rest) {
  while (!rest.empty()) {
    const ssize_t got = read(descriptor, rest.data(), rest.size());
    if (got == 0) {
      errno = EIO;
      return false;
    }
    if (got < 0 && errno != EINTR) {
      return false;
    }
    rest = rest.subspan(got < 0 ? 0 : static_cast<std::size_t>(got));
  }
  return true;
}

bool s_are_valid(const void* buffer, std::size_t length, const char* path) {
  if (path == nullptr || (buffer == nullptr && length != 0)) {
    errno = EINVAL;
    return false;
  }
  return true;
}

}  // namespace

int kvhlp_dump_buffer_to_file(const void* buffer, std::size_t length, const char* path) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (!s_are_valid(buffer, length, path)) {
    KV_LOG_ERROR("Got NULL pointer");
    return rc;
  }
  open_file file(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (!file.is_open() ||
      !s_write_all(file.get(), {static_cast<const std::uint8_t*>(buffer), length}) ||
      !file.finish()) {
    KV_LOG_ERROR("Failed to write %s: %s", path, KVstrerror(errno));
    return rc;
  }
  return rc = 0;
}

int kvhlp_read_buffer_from_file(void* buffer, std::size_t length, const char* path) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (!s_are_valid(buffer, length, path)) {
    KV_LOG_ERROR("Got NULL pointer");
    return rc;
  }
  const open_file file(path, O_RDONLY);
  if (!file.is_open() || !s_read_all(file.get(), {static_cast<std::uint8_t*>(buffer), length})) {
    KV_LOG_ERROR("Failed to read %s: %s", path, KVstrerror(errno));
    return rc;
  }
  return rc = 0;
}
