#pragma once
// Paths and files: normalise, flatten and expand paths; ask for type, size and time; make, copy and
// remove files and trees. Yes/no questions answer 1 or 0, the others 0 or -1. Any thread; a static
// buffer belongs to the calling thread and holds until its next call.

#include <sys/types.h>

#include <cstdint>
#include <ctime>

// A copy with every run of "/" collapsed into one (the caller frees), or null.
[[nodiscard]] char* kvhlp_unix_path_normalize(const char* path);

// The path with every "/" replaced by "_", cut after 4096 characters, in a static buffer. Null for
// a null or empty path.
[[nodiscard]] const char* kvhlp_FlattenPath(const char* path);

[[nodiscard]] int kvhlp_IsFile(const char* path);  // exists, of whatever type
[[nodiscard]] int kvhlp_IsDir(const char* path);
[[nodiscard]] int kvhlp_IsRegularFile(const char* path);
[[nodiscard]] int kvhlp_IsRegularFileD(const char* dir, const char* name);
[[nodiscard]] int kvhlp_IsWritable(const char* path);
[[nodiscard]] int kvhlp_GetFileSize(const char* path, std::uint64_t* size_out);

// Modification time in seconds, 0 when there is none to read.
[[nodiscard]] std::time_t kvhlp_get_file_mtime(const char* dir, const char* name);
[[nodiscard]] std::time_t kvhlp_get_dir_mtime(const char* path);

// The number on the first line of a file. A missing or unreadable file is tried again after 1 s, up
// to retries more times, then counts as 0; any other error of opening is -1 at once.
[[nodiscard]] int kvhlp_ReadIntValue(const char* path, int retries);
[[nodiscard]] int kvhlp_StoreIntValue(const char* path, int value);

// Removes a directory with all it holds. Links are removed, not followed.
[[nodiscard]] int kvhlp_RemoveDir(const char* path);
// Copies a file with its permissions over whatever the target was.
[[nodiscard]] int copy_file(const char* from, const char* to);
// Copies a tree into a directory, made if missing; links stay links. A target inside the source is
// refused.
[[nodiscard]] int copy_dir_recursive(const char* from, const char* to);

// Makes one directory; one that exists already is fine as it is.
[[nodiscard]] int kvhlp_create_dir(const char* path, mode_t mode);
// Makes every missing directory of a path, mode 0750.
[[nodiscard]] int kvhlp_create_dir_path(const char* path);
// The same prefix by prefix: split at every "/", each prefix made in turn.
[[nodiscard]] int kvhlp_mkdirhier(const char* path);

// Expands "~", "$NAME" and wildcards as a shell does, without command substitution; the words are
// joined without separators. A path that cannot be expanded is copied as it is. The caller frees.
[[nodiscard]] char* kvhlp_expand_path(const char* path);
