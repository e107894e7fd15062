#define KV_LOG_UNIT "kv_worker_RecursiveScan"
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/kv_json.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_RecursiveScan.h"

namespace {

enum class s_kind {
  integer,           // 0 when missing
  optional_integer,  // left out when missing
  text,              // "" when missing
  required_text,     // present and not empty, or there is no request
};

struct s_key {
  const char* name;
  s_kind kind;
};

constexpr s_key kCommand{"Command", s_kind::integer};

// In the order in which they are written; the object's own keys stand between the two tables.
constexpr std::array kIdentityKeys{
    s_key{"realmID", s_kind::required_text},  s_key{"SID", s_kind::required_text},
    s_key{"Hostname", s_kind::required_text}, s_key{"EventID", s_kind::required_text},
    s_key{"Services", s_kind::required_text}, s_key{"Scan-Servers", s_kind::required_text}};

constexpr std::array kPolicyKeys{s_key{"SCANALLEMBEDDED", s_kind::integer},
                                 s_key{"SCANTIMEOUT", s_kind::integer},
                                 s_key{"SCANBANDWIDTH", s_kind::integer},
                                 s_key{"ENFORCE_MIME_POLICY_IN_ARCHIVES", s_kind::integer},
                                 s_key{"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", s_kind::integer},
                                 s_key{"CUST_CHECK_MIME_TYPE", s_kind::integer},
                                 s_key{"ENFORCE_MIME_EXTENSION_MATCH", s_kind::integer},
                                 s_key{"CUST_ACTIVE_CONTENT", s_kind::integer},
                                 s_key{"CUST_CLEAN", s_kind::integer},
                                 s_key{"SCANMIMETYPES", s_kind::text},
                                 s_key{"BLOCKMIMETYPES", s_kind::text},
                                 s_key{"SCANEXTENSIONS", s_kind::text},
                                 s_key{"BLOCKEXTENSIONS", s_kind::text},
                                 s_key{"BLOCKENCRYPTED", s_kind::integer},
                                 s_key{"BLOCKHTML_IN_PDF", s_kind::integer},
                                 s_key{"SCANBASE64", s_kind::integer},
                                 s_key{"SCANUUENCODED", s_kind::integer},
                                 s_key{"SCANXMLCONTENT", s_kind::integer},
                                 s_key{"HTMLDETECTION", s_kind::required_text},
                                 s_key{"XML_MODE", s_kind::required_text},
                                 s_key{"SVG_MODE", s_kind::required_text},
                                 s_key{"LONGMIMETYPES", s_kind::integer},
                                 s_key{"CLEANQUARANTINE", s_kind::text},
                                 s_key{"INCLUDE_EVENT_ID_IN_MESSAGE", s_kind::integer},
                                 s_key{"EVENT_ID_DELIMITER", s_kind::required_text},
                                 s_key{"SCANBESTEFFORT", s_kind::integer},
                                 s_key{"SCANALLFILES", s_kind::integer},
                                 s_key{"SCANEXTRACT", s_kind::integer},
                                 s_key{"SCANEXTRACT_DEPTH", s_kind::integer},
                                 s_key{"SCANEXTRACT_MAX_FILES", s_kind::integer},
                                 s_key{"SCANEXTRACT_SIZE", s_kind::integer},
                                 s_key{"SCANEXTRACT_RATIO", s_kind::integer},
                                 s_key{"SCANEXTRACT_NO_VIRUSSCAN", s_kind::integer},
                                 s_key{"SCAN_MIN_SIZE", s_kind::integer},
                                 s_key{"SCAN_MAX_SIZE", s_kind::integer},
                                 s_key{"SCAN_EXTENSION_MAX_LEN", s_kind::optional_integer}};

constexpr const char* kFunction = "s_kv_worker_encodescanjobtoJSON";

void s_copy_integer(json_object* from, json_object* to, const s_key& key) {
  std::int64_t value = 0;
  const bool found = kv_json_get_int64(from, key.name, value);
  if (!found && key.kind == s_kind::optional_integer) {
    return;
  }
  if (!found) {
    KV_LOG_AS(KV_LOG_LEVEL_WARN, kFunction, "Object %s not found", key.name);
  }
  json_object_object_add(to, key.name, json_object_new_int64(value));
}

bool s_copy_text(json_object* from, json_object* to, const s_key& key, char* error) {
  const char* text = nullptr;
  const kv_json_presence presence = kv_json_find_text(from, key.name, text);
  if (presence != kv_json_presence::present && key.kind == s_kind::required_text) {
    const std::string message = kv_json_presence_message(presence, key.name);
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kFunction, "%s", message.c_str());
    std::snprintf(error, KV_ERROR_TEXT_SIZE, "%s", message.c_str());
    return false;
  }
  json_object_object_add(to, key.name, json_object_new_string(text == nullptr ? "" : text));
  return true;
}

bool s_copy_key(json_object* from, json_object* to, const s_key& key, char* error) {
  if (key.kind == s_kind::text || key.kind == s_kind::required_text) {
    return s_copy_text(from, to, key, error);
  }
  s_copy_integer(from, to, key);
  return true;
}

template <std::size_t N>
bool s_copy_keys(json_object* from, json_object* to, const std::array<s_key, N>& keys,
                 char* error) {
  for (const s_key& key : keys) {
    if (!s_copy_key(from, to, key, error)) {
      return false;
    }
  }
  return true;
}

void s_add_object(json_object* to, std::int32_t recursion, std::int32_t shm_id, const char* name,
                  std::uint64_t length) {
  std::array<char, 16> segment{};
  std::snprintf(segment.data(), segment.size(), "0x%x", static_cast<std::uint32_t>(shm_id));
  json_object_object_add(to, "Recursion", json_object_new_int(recursion + 1));
  json_object_object_add(to, "shmID", json_object_new_string(segment.data()));
  json_object_object_add(to, "ObjectName", json_object_new_string(name));
  json_object_object_add(to, "ObjectLen", json_object_new_uint64(length));
}

}  // namespace

json_object* s_kv_worker_encodescanjobtoJSON(json_object* scan_job, std::int32_t recursion,
                                             std::int32_t shm_id, const char* name,
                                             std::uint64_t length, char* error) {
  kv_json_ptr request{json_object_new_object()};
  if (!request) {
    return nullptr;
  }
  s_copy_integer(scan_job, request.get(), kCommand);
  if (!s_copy_keys(scan_job, request.get(), kIdentityKeys, error)) {
    return nullptr;
  }
  s_add_object(request.get(), recursion, shm_id, name, length);
  if (!s_copy_keys(scan_job, request.get(), kPolicyKeys, error)) {
    return nullptr;
  }
  return request.release();
}
