#define KV_LOG_UNIT "kv_worker"
#include "worker/kv_worker_scan_types.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "common/kv_json.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"
#include "messaging/kv_amqp_client.h"

namespace {

constexpr const char* kBuilder = "kv_worker_GetScanJobDetails";

void s_report(char* error, const char* text) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, kBuilder, "%s", text);
  if (error != nullptr) {
    static_cast<void>(std::snprintf(error, KV_ERROR_TEXT_SIZE, "%s", text));
  }
}

void s_set_defaults(scanobject& job) {
  job.enforce_mime_policy_in_archives = 1;
  job.enforce_activecontent_policy_in_archives = 1;
  job.extract_ratio = 1032;
  job.extract_depth = 20;
  job.extension_max_length = 5;
  job.shm_id = -1;
  job.limit_ms = KV_NO_TIME_LIMIT;
}

scanobject* s_new_job(char* error) {
  kv_scanobject_ptr job{new (std::nothrow) scanobject{}};
  if (!job) {
    s_report(error, "Failed to allocate scanobject struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob struct");
  job->ScanConfig = new (std::nothrow) ScanConfig_t{};
  if (job->ScanConfig == nullptr) {
    s_report(error, "Failed to allocate scanobject->ScanConfig struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob->scanconfig struct");
  s_set_defaults(*job);
  job->ActiveContent = new (std::nothrow) ActiveContent_t{};
  if (job->ActiveContent == nullptr) {
    s_report(error, "Failed to allocate scanobject-ActiveContent struct");
    return nullptr;
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kBuilder, "Allocated scanjob->ActiveContent struct");
  return job.release();
}

struct job_reader {
  json_object* request;
  scanobject& job;
  char* error;
};

bool s_refuse(job_reader& reader, const std::string& message) {
  s_report(reader.error, message.c_str());
  return false;
}

bool s_keep_text(job_reader& reader, const char* key, const char* text, char*& out) {
  out = strdup(text);
  return out != nullptr || s_refuse(reader, std::string("Failed to allocate ") + key);
}

bool s_find_required(job_reader& reader, const char* key, const char*& text) {
  const kv_json_presence presence = kv_json_find_text(reader.request, key, text);
  return presence == kv_json_presence::present ||
         s_refuse(reader, kv_json_presence_message(presence, key));
}

// Readers of one key each. False ends the building of the job.
using key_reader = bool (*)(job_reader& reader, const char* key);

template <auto Member>
bool s_required_text(job_reader& reader, const char* key) {
  const char* text = nullptr;
  return s_find_required(reader, key, text) && s_keep_text(reader, key, text, reader.job.*Member);
}

template <auto Member>
bool s_silent_text(job_reader& reader, const char* key) {
  const char* text = nullptr;
  static_cast<void>(kv_json_find_text(reader.request, key, text));
  return s_keep_text(reader, key, text == nullptr ? "" : text, reader.job.*Member);
}

void s_log_absent(const char* key) {
  KV_LOG_AS(KV_LOG_LEVEL_WARN, kBuilder, "Object %s not found", key);
}

// Absent keeps the default.
template <auto Member>
bool s_number(job_reader& reader, const char* key) {
  auto& field = reader.job.*Member;
  bool found = false;
  if constexpr (sizeof(field) == sizeof(std::int64_t)) {
    found = kv_json_get_int64(reader.request, key, field);
  } else {
    found = kv_json_get_int(reader.request, key, field);
  }
  if (!found) {
    s_log_absent(key);
  }
  return true;
}

// Every number of the scan configuration is read as 32 bits, the 64-bit sizes included.
template <auto Member>
bool s_config_number(job_reader& reader, const char* key) {
  std::int32_t value = 0;
  if (kv_json_get_int(reader.request, key, value)) {
    reader.job.ScanConfig->*Member = value;
  } else {
    s_log_absent(key);
  }
  return true;
}

bool s_shm_id(job_reader& reader, const char* key) {
  const char* text = nullptr;
  if (!s_find_required(reader, key, text)) {
    return false;
  }
  reader.job.shm_id = static_cast<std::int32_t>(std::strtol(text, nullptr, 16));
  return true;
}

bool s_extension_max_length(job_reader& reader, const char* key) {
  std::int64_t value = 0;
  if (kv_json_get_int64(reader.request, key, value) && value > 0) {
    reader.job.extension_max_length = value;
  }
  return true;
}

bool s_no_virusscan(job_reader& reader, const char* key) {
  std::int32_t value = 0;
  reader.job.extract_no_virusscan = kv_json_get_int(reader.request, key, value) && value == 1;
  return true;
}

struct named_mode {
  const char* name;
  std::int32_t mode;
};
constexpr std::int32_t kHtmlDetectionOther = 1;
constexpr std::array<named_mode, 3> kHtmlDetectionModes{
    {{"OFF", 0}, {"RESTRICTIVE", 2}, {"SVG", 3}}};

bool s_html_detection(job_reader& reader, const char* key) {
  const char* text = nullptr;
  if (!s_find_required(reader, key, text)) {
    return false;
  }
  const auto* const mode = std::ranges::find_if(
      kHtmlDetectionModes, [&](const named_mode& m) { return strcasecmp(m.name, text) == 0; });
  reader.job.ScanConfig->html_detection =
      mode == kHtmlDetectionModes.end() ? kHtmlDetectionOther : mode->mode;
  return true;
}

struct key_row {
  const char* key;
  key_reader read;
};

// In reading order, which decides which of several faults is reported.
constexpr std::array kKeys{
    key_row{"ObjectName", s_required_text<&scanobject::object_name>},
    key_row{"ObjectLen", s_number<&scanobject::object_length>},
    key_row{"Services", s_required_text<&scanobject::services>},
    key_row{"Recursion", s_number<&scanobject::recursion>},
    key_row{"shmID", s_shm_id},
    key_row{"CUST_CHECK_MIME_TYPE", s_number<&scanobject::check_mime_type>},
    key_row{"CUST_ACTIVE_CONTENT", s_number<&scanobject::active_content_policy>},
    key_row{"SCANEXTRACT", s_number<&scanobject::extract>},
    key_row{"SCANEXTRACT_DEPTH", s_number<&scanobject::extract_depth>},
    key_row{"SCANEXTRACT_MAX_FILES", s_number<&scanobject::extract_max_files>},
    key_row{"SCANEXTRACT_SIZE", s_number<&scanobject::extract_size>},
    key_row{"SCAN_EXTENSION_MAX_LEN", s_extension_max_length},
    key_row{"SCANEXTRACT_RATIO", s_number<&scanobject::extract_ratio>},
    key_row{"SCANEXTRACT_NO_VIRUSSCAN", s_no_virusscan},
    key_row{"ENFORCE_MIME_POLICY_IN_ARCHIVES",
            s_number<&scanobject::enforce_mime_policy_in_archives>},
    key_row{"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES",
            s_number<&scanobject::enforce_activecontent_policy_in_archives>},
    key_row{"BLOCKEXTENSIONS", s_silent_text<&scanobject::block_extensions>},
    key_row{"SCANEXTENSIONS", s_silent_text<&scanobject::scan_extensions>},
    key_row{"BLOCKMIMETYPES", s_silent_text<&scanobject::block_mime_types>},
    key_row{"SCANMIMETYPES", s_silent_text<&scanobject::scan_mime_types>},
    key_row{"MIME-type", s_silent_text<&scanobject::mime_type>},
    key_row{"File-type", s_silent_text<&scanobject::file_type>},
    key_row{"Extension", s_silent_text<&scanobject::extension>},
    key_row{"realmID", s_required_text<&scanobject::realm_id>},
    key_row{"EventID", s_required_text<&scanobject::event_id>},
    key_row{"ENFORCE_MIME_EXTENSION_MATCH",
            s_config_number<&ScanConfig_t::enforce_mime_extension_match>},
    key_row{"BLOCKENCRYPTED", s_config_number<&ScanConfig_t::block_encrypted>},
    key_row{"BLOCKHTML_IN_PDF", s_config_number<&ScanConfig_t::block_html_in_pdf>},
    key_row{"SCANBASE64", s_config_number<&ScanConfig_t::scan_base64>},
    key_row{"SCANUUENCODED", s_config_number<&ScanConfig_t::scan_uuencoded>},
    key_row{"SCANXMLCONTENT", s_config_number<&ScanConfig_t::scan_xml_content>},
    key_row{"LONGMIMETYPES", s_config_number<&ScanConfig_t::long_mime_types>},
    key_row{"SCAN_MIN_SIZE", s_config_number<&ScanConfig_t::scan_min_size>},
    key_row{"SCAN_MAX_SIZE", s_config_number<&ScanConfig_t::scan_max_size>},
    key_row{"HTMLDETECTION", s_html_detection},
    key_row{"SCANTIMEOUT", s_config_number<&ScanConfig_t::scan_timeout>},
    key_row{"SCANBANDWIDTH", s_config_number<&ScanConfig_t::scan_bandwidth>},
};
static_assert(kKeys.size() == 37);

}  // namespace

scanobject* kv_worker_GetScanJobDetails(json_object* request, char* error) {
  KV_LOG_TRACE("Entering");
  kv_scanobject_ptr job{s_new_job(error)};
  if (!job) {
    return nullptr;
  }
  job->request = request;
  job_reader reader{request, *job, error};
  for (const key_row& row : kKeys) {
    if (!row.read(reader, row.key)) {
      return nullptr;
    }
  }
  KV_LOG_TRACE("Scan-Timeout: %d", job->ScanConfig->scan_timeout);
  return job.release();
}

scanobject* kv_worker_new_scanobject() {
  return s_new_job(nullptr);
}

void kv_worker_FreeScanObject(scanobject** job) {
  if (job == nullptr || *job == nullptr) {
    return;
  }
  scanobject* const gone = *job;
  *job = nullptr;
  for (char* text :
       {gone->object_name, gone->services, gone->scan_extensions, gone->scan_mime_types,
        gone->block_extensions, gone->block_mime_types, gone->mime_type, gone->file_type,
        gone->extension, gone->realm_id, gone->event_id}) {
    std::free(text);
  }
  delete gone->ActiveContent;
  delete gone->ScanConfig;
  delete gone;
}

std::int64_t kv_scan_time_left_ms(const scanobject& job) {
  if (job.limit_ms == KV_NO_TIME_LIMIT) {
    return KV_NO_TIME_LIMIT;
  }
  const std::uint64_t now = kv_current_time_ms();
  const std::uint64_t spent = now > job.start_ms ? now - job.start_ms : 0;
  std::int64_t left = 0;
  return __builtin_sub_overflow(job.limit_ms, spent, &left) ? INT64_MIN : left;
}
