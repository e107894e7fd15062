#pragma once
// Scan jobs for tests, fuzz targets and benchmarks, without a request JSON.

#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "worker/kv_worker_scan_types.h"

// A job over the bytes with the named switches on. The bytes are borrowed.
inline kv_scanobject_ptr make_job(std::string_view bytes, std::initializer_list<kv_ac_slot> on = {},
                                  const char* mime_type = "", const char* file_type = "",
                                  const char* extension = "", const char* name = "object") {
  kv_scanobject_ptr job{kv_worker_new_scanobject()};
  job->shm_id = -1;
  job->object_length = static_cast<std::int64_t>(bytes.size());
  job->data = bytes.data();
  job->object_name = strdup(name);
  job->mime_type = strdup(mime_type);
  job->file_type = strdup(file_type);
  job->extension = strdup(extension);
  job->limit_ms = KV_NO_TIME_LIMIT;
  for (const kv_ac_slot slot : on) {
    job->ActiveContent->slots[slot] = 1;
  }
  return job;
}
