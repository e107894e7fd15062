#pragma once
// Search for a member name in an object that may be an archive of any kind. Nothing is extracted,
// no file is touched. Any thread.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "common/kv_archive_walk.h"

// Outcomes of a search.
enum kv_archive_search_result : int {
  KV_ARCHIVE_FOUND = 1,
  KV_ARCHIVE_NOT_FOUND = 0,
  KV_ARCHIVE_REFUSED = -1,  // the bytes do not open as an archive
  KV_ARCHIVE_CUT = -1000,   // the budget was spent before the answer was known
};

// True when the path holds the pattern; letter case is that of ASCII.
[[nodiscard]] bool kv_member_matches(std::string_view path, std::string_view pattern,
                                     bool case_sensitive);

// One walk of its own through the object, up to the first member whose path holds the pattern. cut
// says why a walk was cut short.
[[nodiscard]] int kv_archive_search(std::span<const std::uint8_t> object, std::string_view pattern,
                                    bool case_sensitive, kv_time_source time, kv_archive_cut& cut);

// 1 when the bytes open as an archive and some member's path contains the pattern, 0 when none
// does, -1 when the bytes cannot be opened as an archive, -1000 when they unpack to too much.
[[nodiscard]] int ZpsSearchBufferForFilenamePattern(const void* bytes, std::uint64_t length,
                                                    const char* pattern, int case_sensitive);
