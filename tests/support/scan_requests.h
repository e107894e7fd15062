#pragma once
// Scan requests as a client of the suite sends them, with every key, to be changed key by key.

#include <string>

#include "common/kv_guard.h"

inline const char* const kFullScanRequest = R"({
  "Command": 101, "ObjectName": "in/report.bin", "ObjectLen": 0, "Services": "kv-av-cloudscan",
  "Recursion": 0, "shmID": "0xffffffff", "CUST_CHECK_MIME_TYPE": 1, "CUST_ACTIVE_CONTENT": 2,
  "SCANEXTRACT": 3, "SCANEXTRACT_DEPTH": 7, "SCANEXTRACT_MAX_FILES": 5000000000,
  "SCANEXTRACT_SIZE": 6000000000, "SCAN_EXTENSION_MAX_LEN": 8, "SCANEXTRACT_RATIO": 99,
  "SCANEXTRACT_NO_VIRUSSCAN": 1, "ENFORCE_MIME_POLICY_IN_ARCHIVES": 0,
  "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES": 0, "BLOCKEXTENSIONS": "exe", "SCANEXTENSIONS": "*",
  "BLOCKMIMETYPES": "application/x-dosexec", "SCANMIMETYPES": "text/*", "MIME-type": "text/plain",
  "File-type": "ASCII text", "Extension": ".txt", "realmID": "r1", "SID": "S1", "EventID": "e-1",
  "ENFORCE_MIME_EXTENSION_MATCH": 11, "BLOCKENCRYPTED": 12, "BLOCKHTML_IN_PDF": 13,
  "SCANBASE64": 14, "SCANUUENCODED": 15, "SCANXMLCONTENT": 16, "LONGMIMETYPES": 17,
  "SCAN_MIN_SIZE": 18, "SCAN_MAX_SIZE": 19, "HTMLDETECTION": "ON", "SCANTIMEOUT": 0,
  "SCANBANDWIDTH": 21
})";

inline kv_json_ptr make_scan_request() {
  return kv_json_ptr{json_tokener_parse(kFullScanRequest)};
}
inline void set_text(const kv_json_ptr& request, const char* key, const std::string& value) {
  json_object_object_add(request.get(), key, json_object_new_string(value.c_str()));
}
inline void set_number(const kv_json_ptr& request, const char* key, std::int64_t value) {
  json_object_object_add(request.get(), key, json_object_new_int64(value));
}
inline void drop_key(const kv_json_ptr& request, const char* key) {
  json_object_object_del(request.get(), key);
}
