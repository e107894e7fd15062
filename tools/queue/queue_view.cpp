#include "queue_view.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "logging/kv_pqueue.h"

namespace {

namespace fs = std::filesystem;

std::string s_data_folder(const std::string& queue) {
  return queue + "/data";
}

queue_entry s_describe(const std::string& name, const struct stat& status) {
  const bool temporary = name.starts_with(KV_PQUEUE_TEMP_PREFIX);
  const char first = name.front();
  const bool known = first == KV_PQUEUE_LOG || first == KV_PQUEUE_EVENT;
  return {name, !temporary && known ? first : '?', temporary,
          static_cast<std::uint64_t>(status.st_size), status.st_mtime};
}

}  // namespace

std::optional<std::vector<queue_entry>> queue_entries(const std::string& queue) {
  std::error_code error;
  fs::directory_iterator folder(s_data_folder(queue), error);
  if (error) {
    return std::nullopt;
  }
  std::vector<queue_entry> entries;
  for (const fs::directory_entry& file : folder) {
    struct stat status {};
    if (stat(file.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      entries.push_back(s_describe(file.path().filename().string(), status));
    }
  }
  std::sort(entries.begin(), entries.end(), [](const queue_entry& a, const queue_entry& b) {
    return std::tie(a.time, a.name) < std::tie(b.time, b.name);
  });
  return entries;
}

std::optional<queue_limits> queue_read_limits(const std::string& queue) {
  std::ifstream control(queue + "/control");
  queue_limits limits{};
  if (!(control >> limits.max_entries >> limits.max_bytes >> limits.mode)) {
    return std::nullopt;
  }
  return limits;
}

std::optional<std::string> queue_read_entry(const std::string& queue, const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos) {
    return std::nullopt;
  }
  const std::string path = s_data_folder(queue) + "/" + name;
  std::ifstream file(path, std::ios::binary);
  if (!fs::is_regular_file(path) || !file) {
    return std::nullopt;
  }
  return std::string{std::istreambuf_iterator<char>(file), {}};
}

queue_lock::queue_lock(const std::string& queue)
    : descriptor_(open((queue + "/control").c_str(), O_RDWR | O_CLOEXEC)) {
  if (descriptor_ >= 0 && flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
    close(descriptor_);
    descriptor_ = -1;
  }
}

queue_lock::~queue_lock() {
  if (descriptor_ >= 0) {
    close(descriptor_);  // releases the lock
  }
}

std::size_t queue_remove(const std::string& queue, const std::vector<queue_entry>& entries) {
  std::size_t removed = 0;
  for (const queue_entry& entry : entries) {
    removed += unlink((s_data_folder(queue) + "/" + entry.name).c_str()) == 0 ? 1 : 0;
  }
  return removed;
}
