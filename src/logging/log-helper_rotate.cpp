// Packing a trace file that has reached its size limit. Runs with the trace lock held.
#define KV_LOG_UNIT "log-helper"
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>

#include "common/kv_guard.h"
#include "logging/log-helper.h"
#include "logging/log-helper_internal.h"

namespace {

constexpr std::uint64_t kMegabyte = 1000000;
constexpr std::size_t kNameBufferSize = 4096;
constexpr std::size_t kBlockSize = 8192;
constexpr mode_t kEntryMode = 0644;
constexpr mode_t kArchiveMode = 0666;

using archive_ptr = std::unique_ptr<archive, kv_free_pointer<archive_write_free>>;
using archive_entry_ptr = std::unique_ptr<archive_entry, kv_free_pointer<archive_entry_free>>;

class file_descriptor {
 public:
  explicit file_descriptor(int value) : value_(value) {}
  ~file_descriptor() {
    if (value_ >= 0) {
      close(value_);
    }
  }
  file_descriptor(const file_descriptor&) = delete;
  file_descriptor& operator=(const file_descriptor&) = delete;
  [[nodiscard]] int get() const { return value_; }

 private:
  int value_;
};

bool s_is_done(int archive_result) {
  return archive_result >= ARCHIVE_WARN;
}

// False when the archive did not take everything that could be read.
bool s_copy_content(archive* zip, int source) {
  std::array<char, kBlockSize> block;
  ssize_t size = 0;
  while ((size = read(source, block.data(), block.size())) > 0) {
    if (archive_write_data(zip, block.data(), static_cast<std::size_t>(size)) < 0) {
      return false;
    }
  }
  return size == 0;
}

bool s_pack(archive* zip, const char* path) {
  const file_descriptor source{open(path, O_RDONLY | O_CLOEXEC)};
  struct stat status {};
  if (source.get() < 0 || fstat(source.get(), &status) != 0) {
    return false;
  }
  const archive_entry_ptr entry{archive_entry_new()};
  if (!entry) {
    return false;
  }
  archive_entry_set_pathname(entry.get(), path);
  archive_entry_set_size(entry.get(), status.st_size);
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), kEntryMode);
  return s_is_done(archive_write_header(zip, entry.get())) && s_copy_content(zip, source.get());
}

bool s_write_archive(int descriptor, const char* path) {
  const archive_ptr zip{archive_write_new()};
  return zip && s_is_done(archive_write_set_format_zip(zip.get())) &&
         s_is_done(archive_write_open_fd(zip.get(), descriptor)) && s_pack(zip.get(), path) &&
         s_is_done(archive_write_close(zip.get()));
}

}  // namespace

std::string kv_log_archive_name(const char* path, std::time_t when) {
  std::tm local{};
  char stamp[64] = "";
  if (localtime_r(&when, &local) == nullptr ||
      std::strftime(stamp, sizeof stamp, "%F__%H-%M-%S", &local) == 0) {
    return {};
  }
  char name[kNameBufferSize];
  const int length = std::snprintf(name, sizeof name, "%s_%s.zip", path, stamp);
  return length > 0 && static_cast<std::size_t>(length) < sizeof name ? name : "";
}

int s_switch_logfile(const char* path) {
  const std::string name = kv_log_archive_name(path, std::time(nullptr));
  // Never over an existing archive: the rotation of a second in which one was made already is put
  // off to a later line, without a word.
  const file_descriptor archive_file{
      open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kArchiveMode)};
  if (archive_file.get() < 0) {
    if (errno != EEXIST) {
      KV_LOG_ERROR("Failed to open new archive %s for writing", name.c_str());
    }
    return -1;
  }
  // Nothing is removed that is not packed whole. No log line here: with the lock held it would
  // stall every writer for the length of the lock's time-out.
  if (!s_write_archive(archive_file.get(), path)) {
    unlink(name.c_str());
    return -1;
  }
  unlink(path);
  return 0;
}

int KVLogCheckLogSwitch(const char* path, std::uint64_t maxsize_mb) {
  if (path == nullptr) {
    return 0;
  }
  struct stat status {};
  if (stat(path, &status) != 0) {
    return -1;
  }
  if (maxsize_mb * kMegabyte > static_cast<std::uint64_t>(status.st_size)) {
    return -1;
  }
  static_cast<void>(s_switch_logfile(path));
  return -1;
}
