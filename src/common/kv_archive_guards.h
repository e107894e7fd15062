#pragma once
// Looks at an archive before the library does, where the library would build all of a table of
// contents in memory, within one call, before it gives the first member: no time or size could be
// tested until then. What a table describes beyond the walk's allowance is refused. A table that is
// damaged is left to the library, which refuses it too. Holds no state; one thread per budget.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "common/kv_archive_budget.h"

// The first bytes of an archive, as the library will see them.
struct kv_archive_start {
  std::span<const std::uint8_t> bytes;
  bool is_whole;  // false when the object goes on behind them
  [[nodiscard]] bool starts_with(std::string_view magic) const {
    return std::string_view{reinterpret_cast<const char*>(bytes.data()), bytes.size()}.starts_with(
        magic);
  }
};

// Longest beginning that kv_archive_needs_guard looks at.
inline constexpr std::size_t kGuardMagic = 8;

// True when a table of contents has to be looked at, judged by the first kGuardMagic bytes.
[[nodiscard]] bool kv_archive_needs_guard(const kv_archive_start& start);
// False when the archive's table of contents would cost the library too much, or time is up: the
// budget is spent then. True for anything else.
[[nodiscard]] bool kv_archive_contents_fit(const kv_archive_start& start,
                                           kv_archive_budget& budget);

// The guards of single formats, as above.
[[nodiscard]] bool kv_is_7z_candidate(const kv_archive_start& start);
[[nodiscard]] bool kv_7z_header_fits(const kv_archive_start& start, kv_archive_budget& budget);
[[nodiscard]] bool kv_is_xar(const kv_archive_start& start);
[[nodiscard]] bool kv_xar_contents_fit(const kv_archive_start& start, kv_archive_budget& budget);
