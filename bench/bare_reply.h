#pragma once
// The reply to a clean scan, built and printed with json-c and nothing else: what a worker's own
// way to the same text is measured against.

#include "common/kv_json.h"

inline kv_text_ptr bare_scan_reply() {
  const kv_json_ptr reply{json_object_new_object()};
  json_object* const row = json_object_new_object();
  json_object_object_add(row, "ReturnCode", json_object_new_int(0));
  json_object_object_add(row, "File-name", json_object_new_string("in/report.bin"));
  json_object_object_add(row, "File-size", json_object_new_uint64(0));
  for (const char* key : {"MIME-type", "MIME-encoding", "File-type", "Extension"}) {
    json_object_object_add(row, key, json_object_new_string(""));
  }
  json_object_object_add(row, "Object-type", json_object_new_int(-1));
  json_object_object_add(row, "Virusname", json_object_new_string(" "));
  json_object* const rows = json_object_new_array();
  json_object_array_add(rows, row);
  json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
  json_object_object_add(reply.get(), "Blocking-reason", json_object_new_string(""));
  json_object_object_add(reply.get(), "FilesScanned", json_object_new_int(1));
  json_object_object_add(reply.get(), "Results", rows);
  return kv_json_print(reply.get(), KV_JSON_PRETTY_PLAIN_SLASH);
}
