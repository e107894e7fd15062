#include "common/kvhlp-path-file-operations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wordexp.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "common/KVstrerror.h"
#include "common/kv_guard.h"
#include "common/str_builder.h"
#include "logging/log-helper.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kFlattenedSize = 4096;
constexpr std::size_t kFirstLineSize = 1024;
constexpr mode_t kNewDirMode = 0750;
constexpr unsigned int kRetryPauseSeconds = 1;

struct file_closer {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

bool s_is_empty(const char* path) {
  return path == nullptr || *path == '\0';
}

bool s_stat(const char* path, struct stat& out) {
  return !s_is_empty(path) && stat(path, &out) == 0;
}

std::string s_join(const char* dir, const char* name) {
  return std::string(dir) + '/' + name;
}

std::time_t s_mtime(const char* path) {
  struct stat status {};
  return s_stat(path, status) ? status.st_mtime : 0;
}

// Runs an operation that may throw or fail, and logs either as "what path: reason".
template <class Operation>
int s_run(const char* what, const char* path, Operation operation) {
  try {
    std::error_code error;
    operation(error);
    if (!error) {
      return 0;
    }
    KV_LOG_ERROR("Failed to %s %s: %s", what, path, error.message().c_str());
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("Failed to %s %s: %s", what, path, failure.what());
  }
  return -1;
}

int s_to_int(const char* text) {
  return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

enum class read_result { done, again, failed };

read_result s_read_first_line(const char* path, int& value) {
  const file_ptr file{std::fopen(path, "re")};
  if (!file) {
    return errno == ENOENT ? read_result::again : read_result::failed;
  }
  char line[kFirstLineSize];
  if (std::fgets(line, sizeof line, file.get()) == nullptr) {
    return read_result::again;
  }
  value = s_to_int(line);
  return read_result::done;
}

// A directory that another process made first is as good as one made here.
bool s_make_dir(const char* path, mode_t mode) {
  if (mkdir(path, mode) == 0) {
    return true;
  }
  const int error = errno;
  if (error == EEXIST && kvhlp_IsDir(path) == 1) {
    return true;
  }
  KV_LOG_ERROR("Failed to create directory %s: %s", path, KVstrerror(error));
  return false;
}

// Whether the target lies in the source tree, where a recursive copy would never end.
bool s_is_inside(const fs::path& inner, const fs::path& outer, std::error_code& error) {
  const fs::path target = fs::weakly_canonical(inner, error);
  const fs::path source = error ? fs::path{} : fs::canonical(outer, error);
  return !error &&
         std::mismatch(source.begin(), source.end(), target.begin(), target.end()).first ==
             source.end();
}

const char* s_expansion_error(int code) {
  switch (code) {
    case WRDE_BADCHAR:
      return "illegal character";
    case WRDE_BADVAL:
      return "undefined variable";
    case WRDE_CMDSUB:
      return "command substitution is not allowed";
    case WRDE_NOSPACE:
      return "out of memory";
    default:
      return "syntax error";
  }
}

}  // namespace

char* kvhlp_unix_path_normalize(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  char* const copy = strdup(path);
  if (copy != nullptr) {
    char* const end = std::unique(copy, copy + std::strlen(copy),
                                  [](char a, char b) { return a == '/' && b == '/'; });
    *end = '\0';
  }
  return copy;
}

const char* kvhlp_FlattenPath(const char* path) {
  // One more than is ever copied: a path that is cut is still terminated.
  thread_local char flattened[kFlattenedSize + 1];
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return nullptr;
  }
  const std::size_t length = strnlen(path, kFlattenedSize);
  std::replace_copy(path, path + length, flattened, '/', '_');
  flattened[length] = '\0';
  KV_LOG_DEBUG("Flattened \"%s\" to \"%s\"", path, flattened);
  return flattened;
}

int kvhlp_IsFile(const char* path) {
  return !s_is_empty(path) && access(path, F_OK) == 0 ? 1 : 0;
}

int kvhlp_IsDir(const char* path) {
  struct stat status {};
  return s_stat(path, status) && S_ISDIR(status.st_mode) ? 1 : 0;
}

int kvhlp_IsRegularFile(const char* path) {
  struct stat status {};
  return s_stat(path, status) && S_ISREG(status.st_mode) ? 1 : 0;
}

int kvhlp_IsRegularFileD(const char* dir, const char* name) {
  return dir != nullptr && name != nullptr ? kvhlp_IsRegularFile(s_join(dir, name).c_str()) : 0;
}

int kvhlp_IsWritable(const char* path) {
  return !s_is_empty(path) && access(path, W_OK) == 0 ? 1 : 0;
}

int kvhlp_GetFileSize(const char* path, std::uint64_t* size_out) {
  struct stat status {};
  if (size_out == nullptr || !s_stat(path, status)) {
    return -1;
  }
  *size_out = static_cast<std::uint64_t>(status.st_size);
  return 0;
}

std::time_t kvhlp_get_file_mtime(const char* dir, const char* name) {
  return dir != nullptr && name != nullptr ? s_mtime(s_join(dir, name).c_str()) : 0;
}

std::time_t kvhlp_get_dir_mtime(const char* path) {
  return s_mtime(path);
}

int kvhlp_ReadIntValue(const char* path, int retries) {
  int rc = 0;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc = -1;
  }
  for (int tries_left = retries;; --tries_left) {
    switch (s_read_first_line(path, rc)) {
      case read_result::done:
        return rc;
      case read_result::failed:
        KV_LOG_ERROR("Failed to open %s: %s", path, KVstrerror(errno));
        return rc = -1;
      case read_result::again:
        break;
    }
    if (tries_left <= 0) {
      return rc = 0;
    }
    sleep(kRetryPauseSeconds);
  }
}

int kvhlp_StoreIntValue(const char* path, int value) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  file_ptr file{std::fopen(path, "we")};
  if (!file) {
    KV_LOG_ERROR("Failed to open %s: %s", path, KVstrerror(errno));
    return rc;
  }
  const bool printed = std::fprintf(file.get(), "%d", value) > 0;
  if (std::fclose(file.release()) != 0 || !printed) {
    KV_LOG_ERROR("Failed to write %s: %s", path, KVstrerror(errno));
    return rc;
  }
  return rc = 0;
}

int kvhlp_RemoveDir(const char* path) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  return rc = s_run("remove directory", path, [path](std::error_code& error) {
           const fs::file_status status = fs::symlink_status(path, error);
           if (!error && !fs::is_directory(status)) {
             error = std::make_error_code(std::errc::not_a_directory);
           }
           if (!error) {
             fs::remove_all(path, error);
           }
         });
}

int copy_file(const char* from, const char* to) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(from) || s_is_empty(to)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  return rc = s_run("copy", from, [from, to](std::error_code& error) {
           fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
         });
}

int copy_dir_recursive(const char* from, const char* to) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(from) || s_is_empty(to)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  return rc = s_run("copy directory", from, [from, to](std::error_code& error) {
           if (!fs::is_directory(from, error)) {
             error = error ? error : std::make_error_code(std::errc::not_a_directory);
           } else if (s_is_inside(to, from, error)) {
             error = std::make_error_code(std::errc::invalid_argument);
           }
           if (!error) {
             fs::copy(from, to,
                      fs::copy_options::recursive | fs::copy_options::overwrite_existing |
                          fs::copy_options::copy_symlinks,
                      error);
           }
         });
}

int kvhlp_create_dir(const char* path, mode_t mode) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  return rc = s_make_dir(path, mode) ? 0 : -1;
}

int kvhlp_create_dir_path(const char* path) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  return rc = kvhlp_mkdirhier(path);
}

int kvhlp_mkdirhier(const char* path) {
  int rc = -1;
  KV_TRACE_SCOPE(rc);
  if (s_is_empty(path)) {
    KV_LOG_ERROR("Invalid path argument provided");
    return rc;
  }
  const str_builder_ptr prefix{str_builder_create()};
  if (!prefix) {
    KV_LOG_ERROR("Failed to create directory %s: %s", path, KVstrerror(ENOMEM));
    return rc;
  }
  for (const char* c = path; *c != '\0'; ++c) {
    // A prefix ends before a "/" that begins no empty name.
    const bool name_ends = *c == '/' && c != path && c[-1] != '/';
    if (name_ends && !s_make_dir(str_builder_peek(prefix.get()), kNewDirMode)) {
      return rc;
    }
    str_builder_add_char(prefix.get(), *c);
  }
  return rc = s_make_dir(str_builder_peek(prefix.get()), kNewDirMode) ? 0 : -1;
}

char* kvhlp_expand_path(const char* path) {
  if (path == nullptr) {
    KV_LOG_ERROR("Invalid path argument provided");
    return nullptr;
  }
  KV_LOG_TRACE("Expanding path: %s", path);
  wordexp_t words{};
  const int error = wordexp(path, &words, WRDE_NOCMD);
  if (error != 0) {
    if (error == WRDE_NOSPACE) {
      wordfree(&words);  // may hold some of the words
    }
    KV_LOG_ERROR("Expansion failed: %s", s_expansion_error(error));
    return strdup(path);
  }
  const str_builder_ptr expanded{str_builder_create()};
  for (std::size_t i = 0; expanded && i < words.we_wordc; ++i) {
    str_builder_add_str(expanded.get(), words.we_wordv[i], 0);
  }
  wordfree(&words);
  KV_LOG_TRACE("Expanded path: %s", expanded ? str_builder_peek(expanded.get()) : path);
  return str_builder_dump(expanded.get());
}
