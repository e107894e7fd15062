#include "common/kvhlp_zip.h"

#include <algorithm>

#include "logging/log-helper.h"

namespace {

constexpr const char* kSearch = "ZpsSearchBufferForFilenamePattern";

char s_fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool s_equal_folded(char a, char b) {
  return s_fold(a) == s_fold(b);
}

}  // namespace

bool kv_member_matches(std::string_view path, std::string_view pattern, bool case_sensitive) {
  if (case_sensitive) {
    return path.find(pattern) != std::string_view::npos;
  }
  return pattern.empty() || std::search(path.begin(), path.end(), pattern.begin(), pattern.end(),
                                        s_equal_folded) != path.end();
}

int kv_archive_search(std::span<const std::uint8_t> object, std::string_view pattern,
                      bool case_sensitive, kv_time_source time, kv_archive_cut& cut) {
  kv_archive_walk walk{object, time};
  bool found = false;
  const bool opened = walk.open();
  if (!opened) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSearch, "Can't open as archive. Code %d: %s", walk.error_code(),
              walk.error_text());
  }
  while (opened && !found && walk.next()) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kSearch, "Checking file %.*s",
              static_cast<int>(walk.name().size()), walk.name().data());
    found = kv_member_matches(walk.name(), pattern, case_sensitive);
  }
  cut = walk.cut();
  if (found) {
    return KV_ARCHIVE_FOUND;
  }
  if (cut != kv_archive_cut::none) {
    return KV_ARCHIVE_CUT;
  }
  return opened ? KV_ARCHIVE_NOT_FOUND : KV_ARCHIVE_REFUSED;
}

int ZpsSearchBufferForFilenamePattern(const void* bytes, std::uint64_t length, const char* pattern,
                                      int case_sensitive) {
  kv_archive_cut cut = kv_archive_cut::none;
  return kv_archive_search({static_cast<const std::uint8_t*>(bytes), length}, pattern,
                           case_sensitive != 0, {}, cut);
}
