#include "activecontent/kv_archive_listing.h"

#include <cstdio>
#include <memory>

#include "logging/log-helper.h"

namespace {

void s_note_name(kv_archive_listing& listing) {
  for (std::size_t token = 0; token < KV_MEMBER_TOKEN_COUNT; ++token) {
    listing.found[token] =
        listing.found[token] || kv_member_matches(listing.walk.name(), kMemberTokens[token], true);
  }
}

// Reads on until the token is found or no member is left.
int s_find(kv_archive_listing& listing, kv_member_token token) {
  if (!listing.asked) {
    listing.asked = true;
    listing.opened = listing.walk.open();
    listing.ended = !listing.opened;
  }
  while (!listing.found[token] && !listing.ended) {
    listing.ended = !listing.walk.next();
    if (!listing.ended) {
      s_note_name(listing);
    }
  }
  if (listing.found[token]) {
    return KV_ARCHIVE_FOUND;
  }
  if (listing.walk.cut() != kv_archive_cut::none) {
    return KV_ARCHIVE_CUT;
  }
  return listing.opened ? KV_ARCHIVE_NOT_FOUND : KV_ARCHIVE_REFUSED;
}

std::int64_t s_time_left(const void* job) {
  return kv_scan_time_left_ms(*static_cast<const scanobject*>(job));
}

}  // namespace

std::span<const std::uint8_t> kv_object_bytes(const scanobject& job) {
  if (job.data == nullptr || job.object_length <= 0) {
    return {};
  }
  return {static_cast<const std::uint8_t*>(job.data), static_cast<std::size_t>(job.object_length)};
}

kv_time_source kv_object_time(const scanobject& job) {
  return {s_time_left, &job};
}

std::int32_t kv_archive_report_cut(kv_archive_cut cut, char* error) {
  const char* text =
      cut == kv_archive_cut::time ? "Service side timeout" : "Archive too large to examine";
  KV_LOG_WARN("%s", text);
  static_cast<void>(std::snprintf(error, KV_REASON_SIZE, "%s", text));
  return KV_RESULT_FAILED;
}

int kv_archive_listing_find(scanobject& job, kv_member_token token, char* error) {
  kv_archive_cut cut = kv_archive_cut::none;
  int result = KV_ARCHIVE_REFUSED;
  if (log_is_enabled(KV_LOG_LEVEL_DEBUG)) {
    // Each search names each member that it looks at, so each walks by itself.
    result = kv_archive_search(kv_object_bytes(job), kMemberTokens[token], true,
                               kv_object_time(job), cut);
  } else {
    if (!job.archive_listing) {
      job.archive_listing =
          std::make_shared<kv_archive_listing>(kv_object_bytes(job), kv_object_time(job));
    }
    result = s_find(*job.archive_listing, token);
    cut = job.archive_listing->walk.cut();
  }
  if (result == KV_ARCHIVE_CUT) {
    static_cast<void>(kv_archive_report_cut(cut, error));
  }
  return result;
}
