#pragma once
// The member names of a scan's object, as far as the detectors ask for them. All of them share one
// opening and one listing, made by the first test of the scan and read no further than the answers
// need. Belongs to the job and the thread that scans it.

#include <array>
#include <cstdint>
#include <string_view>

#include "activecontent/kvactivecontent_detectors.h"
#include "common/kv_archive_walk.h"
#include "common/kvhlp_zip.h"

// What is looked for in member names, with regard to letter case.
enum kv_member_token : std::size_t {
  KV_MEMBER_MACRO,
  KV_MEMBER_MACRO_SIGNATURE,
  KV_MEMBER_EMBEDDED,
  KV_MEMBER_JAVA_CLASS,
  KV_MEMBER_TOKEN_COUNT
};
inline constexpr std::array<const char*, KV_MEMBER_TOKEN_COUNT> kMemberTokens{
    "vbaProject.bin", "vbaProjectSignature.bin", "embeddings", ".class"};

struct kv_archive_listing {
  kv_archive_listing(std::span<const std::uint8_t> object, kv_time_source time)
      : walk(object, time) {}

  kv_archive_walk walk;
  bool asked = false;  // the opening was tried
  bool opened = false;
  bool ended = false;  // no further member can be reached
  std::array<bool, KV_MEMBER_TOKEN_COUNT> found{};
};

// The job's bytes, and its time as a walk asks for it.
[[nodiscard]] std::span<const std::uint8_t> kv_object_bytes(const scanobject& job);
[[nodiscard]] kv_time_source kv_object_time(const scanobject& job);

// Looks for a member name in the job's object: an outcome of kv_archive_search_result. On
// KV_ARCHIVE_CUT the scan is over: the reason stands in error and in the log.
[[nodiscard]] int kv_archive_listing_find(scanobject& job, kv_member_token token, char* error);

// Writes why a walk was cut short into error and the log; KV_RESULT_FAILED.
std::int32_t kv_archive_report_cut(kv_archive_cut cut, char* error);
