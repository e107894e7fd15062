#include "scan_request.h"

#include <json-c/json.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <array>
#include <utility>

namespace kv_scan {
namespace {

constexpr int kScanCommand = 101;
constexpr const char* kNoSegment = "0xffffffff";

// Policy with its neutral values: nothing is excluded, nothing is limited beyond what the protocol
// limits by itself.
constexpr std::array<std::pair<const char*, int>, 27> kIntegers{{
    {"Recursion", 0},
    {"SCANALLEMBEDDED", 1},
    {"SCANBANDWIDTH", 0},
    {"ENFORCE_MIME_POLICY_IN_ARCHIVES", 1},
    {"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", 1},
    {"CUST_CHECK_MIME_TYPE", 0},
    {"ENFORCE_MIME_EXTENSION_MATCH", 0},
    {"CUST_ACTIVE_CONTENT", 1},
    {"CUST_CLEAN", 0},
    {"BLOCKENCRYPTED", 0},
    {"BLOCKHTML_IN_PDF", 0},
    {"SCANBASE64", 0},
    {"SCANUUENCODED", 0},
    {"SCANXMLCONTENT", 0},
    {"LONGMIMETYPES", 0},
    {"INCLUDE_EVENT_ID_IN_MESSAGE", 0},
    {"SCANBESTEFFORT", 0},
    {"SCANALLFILES", 1},
    {"SCANEXTRACT", 0},
    {"SCANEXTRACT_DEPTH", 20},
    {"SCANEXTRACT_MAX_FILES", 0},
    {"SCANEXTRACT_SIZE", 0},
    {"SCANEXTRACT_RATIO", 1032},
    {"SCANEXTRACT_NO_VIRUSSCAN", 0},
    {"SCAN_MIN_SIZE", 0},
    {"SCAN_MAX_SIZE", 0},
    {"SCAN_EXTENSION_MAX_LEN", 5},
}};

constexpr std::array<std::pair<const char*, const char*>, 10> kTexts{{
    {"shmID", kNoSegment},
    {"SCANMIMETYPES", ""},
    {"BLOCKMIMETYPES", ""},
    {"SCANEXTENSIONS", ""},
    {"BLOCKEXTENSIONS", ""},
    {"HTMLDETECTION", "ON"},
    {"XML_MODE", "ON"},
    {"SVG_MODE", "ON"},
    {"CLEANQUARANTINE", ""},
    {"EVENT_ID_DELIMITER", "EventID:"},
}};

void s_add(json_object* request, const char* key, const std::string& value) {
  json_object_object_add(request, key,
                         json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

}  // namespace

kv_json_ptr make_request(const object_description& object, const request_settings& settings,
                         const std::string& event_id) {
  kv_json_ptr request{json_object_new_object()};
  json_object_object_add(request.get(), "Command", json_object_new_int(kScanCommand));
  s_add(request.get(), "realmID", settings.realm);
  s_add(request.get(), "SID", settings.sid);
  s_add(request.get(), "Hostname", settings.hostname);
  s_add(request.get(), "EventID", event_id);
  s_add(request.get(), "Services", settings.services);
  s_add(request.get(), "Scan-Servers", settings.hostname);
  s_add(request.get(), "ObjectName", object.name);
  json_object_object_add(request.get(), "ObjectLen", json_object_new_uint64(object.size));
  json_object_object_add(request.get(), "SCANTIMEOUT", json_object_new_int(settings.timeout_ms));
  s_add(request.get(), "MIME-type", object.mime);
  s_add(request.get(), "File-type", object.type);
  s_add(request.get(), "Extension", object.extension);
  for (const auto& [key, value] : kIntegers) {
    json_object_object_add(request.get(), key, json_object_new_int(value));
  }
  for (const auto& [key, value] : kTexts)
    s_add(request.get(), key, value);
  return request;
}

std::string make_event_id() {
  uuid_t id;
  std::array<char, UUID_STR_LEN> text{};
  uuid_generate_random(id);
  uuid_unparse_lower(id, text.data());
  return text.data();
}

std::string own_hostname() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data()
                                                                             : "localhost";
}

}  // namespace kv_scan
