#include "common/kv_archive_guards.h"

bool kv_archive_needs_guard(const kv_archive_start& start) {
  return kv_is_7z_candidate(start) || kv_is_xar(start);
}

bool kv_archive_contents_fit(const kv_archive_start& start, kv_archive_budget& budget) {
  if (kv_is_xar(start)) {
    return kv_xar_contents_fit(start, budget);
  }
  return !kv_is_7z_candidate(start) || kv_7z_header_fits(start, budget);
}
