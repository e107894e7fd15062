#include <cstdio>

#include "activecontent/kv_archive_listing.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "logging/log-helper.h"

std::int32_t kvactivecontent_GIFAR(scanobject* job, char* reason, char* error) {
  int rc = KV_RESULT_CLEAN;
  KV_TRACE_SCOPE(rc);
  KV_LOG_DEBUG("Checking for Java classes non-Java files");
  switch (kv_archive_listing_find(*job, KV_MEMBER_JAVA_CLASS, error)) {
    case KV_ARCHIVE_FOUND:
      static_cast<void>(std::snprintf(reason, KV_REASON_SIZE, "\"Java class\" detected"));
      KV_LOG_WARN("%s", reason);
      rc = KV_RESULT_ACTIVE_CONTENT;
      break;
    case KV_ARCHIVE_NOT_FOUND:
      KV_LOG_DEBUG("No Java classes object found");
      break;
    case KV_ARCHIVE_CUT:
      rc = KV_RESULT_FAILED;
      break;
    default:  // no archive
      break;
  }
  return rc;
}
