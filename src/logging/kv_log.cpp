#include "logging/kv_log.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/kv_json.h"
#include "common/kv_uuid.h"
#include "common/kvhlp_network.h"
#include "logging/log-helper.h"

namespace {

constexpr std::int32_t kLogVersion = 1;
constexpr const char* kComponent = "kv-av-activecontent";
constexpr std::int32_t kEventCommand = 501;
constexpr std::size_t kUuidTextSize = 37;
constexpr const char* kDefaultEventIdPrefix = "EventID:";

bool s_is_given(const char* text) {
  return text != nullptr && *text != '\0';
}

void s_add_text(json_object* object, const char* key, const char* text) {
  json_object_object_add(object, key, json_object_new_string(text));
}

void s_add_optional_text(json_object* object, const char* key, const char* text) {
  if (text != nullptr) {
    s_add_text(object, key, text);
  }
}

std::string s_get_logtimestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  std::array<char, 32> text{};
  if (gmtime_r(&now, &utc) == nullptr ||
      std::strftime(text.data(), text.size(), "%F %H:%M:%S", &utc) == 0) {
    KV_LOG_ERROR("Failed to create timestamp");
    return {};
  }
  return text.data();
}

kv_json_ptr s_new_event_section(std::int32_t type, const char* filename, const char* error,
                                const char* blocking_reason, const char* event_message) {
  kv_json_ptr event{json_object_new_object()};
  if (!event) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_send_event", "Failed to allocate %s", "event_json");
    return nullptr;
  }
  json_object_object_add(event.get(), "Type", json_object_new_int(type));
  s_add_optional_text(event.get(), "Filename", filename);
  s_add_optional_text(event.get(), "Error", error);
  s_add_optional_text(event.get(), "Blocking-Reason", blocking_reason);
  s_add_optional_text(event.get(), "Event-Message", event_message);
  return event;
}

// Base64 of a cipher text, standard alphabet with fill; null after logging.
kv_text_ptr s_encode_base64(const unsigned char* bytes, std::size_t length) {
  const std::size_t size = sodium_base64_encoded_len(length, sodium_base64_VARIANT_ORIGINAL) + 1;
  kv_text_ptr text{static_cast<char*>(std::calloc(1, size))};
  if (!text) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_send_event", "Failed to allocate %s",
              "encrypted_event_message_b64");
    return nullptr;
  }
  if (sodium_bin2base64(text.get(), size, bytes, length, sodium_base64_VARIANT_ORIGINAL) ==
      nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kv_log_send_event",
              "Failed to encode encrypted event message to base64");
    return nullptr;
  }
  return text;
}

bool s_add_encrypted_section(json_object* message, json_object* event, kv_secretbox_key* key) {
  constexpr const char* function = "kv_log_send_event";
  const char* plain = json_object_to_json_string_ext(event, KV_JSON_COMPACT);
  if (plain == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to convert event message to string");
    return false;
  }
  unsigned char* cipher = nullptr;
  std::size_t cipher_length = 0;
  if (kv_secretbox_encrypt_buffer(reinterpret_cast<const unsigned char*>(plain), std::strlen(plain),
                                  key, &cipher, &cipher_length) != 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, function, "Failed to encrypt event message");
    return false;
  }
  const kv_malloc_ptr<unsigned char> cipher_guard{cipher};
  const kv_text_ptr text = s_encode_base64(cipher, cipher_length);
  if (!text) {
    return false;
  }
  s_add_text(message, "Nonce", key->nonce_hex);
  s_add_text(message, "Event", text.get());
  return true;
}

}  // namespace

char* kv_log_generate_eventID() {
  kv_text_ptr text{static_cast<char*>(std::calloc(1, kUuidTextSize))};
  if (!text) {
    KV_LOG_ERROR("Failed to allocate memory for %s", "eventID");
    return nullptr;
  }
  const std::string uuid = kv_uuid_text(kv_uuid_from_time());
  uuid.copy(text.get(), kUuidTextSize - 1);
  return text.release();
}

json_object* kv_log_create_message_with_eventID(const char* event_id) {
  if (event_id == nullptr) {
    return nullptr;
  }
  const std::string timestamp = s_get_logtimestamp();
  kv_json_ptr message{json_object_new_object()};
  if (timestamp.empty() || !message) {
    return nullptr;
  }
  const char* hostname = kvhlp_GetMyFQDN();
  json_object_object_add(message.get(), "LogVersion", json_object_new_int(kLogVersion));
  s_add_text(message.get(), "Timestamp", timestamp.c_str());
  json_object_object_add(message.get(), "Timestamp_epoch",
                         json_object_new_int64(std::time(nullptr)));
  s_add_text(message.get(), "Component", kComponent);
  s_add_text(message.get(), "Hostname", hostname == nullptr ? "" : hostname);
  s_add_text(message.get(), "EventID", event_id);
  return message.release();
}

json_object* kv_log_create_message() {
  const kv_text_ptr event_id{kv_log_generate_eventID()};
  if (!event_id) {
    KV_LOG_ERROR("Failed to allocate %s", "eventID");
    return nullptr;
  }
  return kv_log_create_message_with_eventID(event_id.get());
}

int kv_log_add_log_section(json_object* message, const char* section_key, const char* realm,
                           json_object* data) {
  kv_json_ptr owned{data};
  if (message == nullptr || data == nullptr) {
    KV_LOG_ERROR("Invalid parameters");
    return -1;
  }
  kv_json_ptr section{json_object_new_object()};
  if (!section) {
    KV_LOG_ERROR("Failed to allocate %s", "logsection_json");
    return -1;
  }
  json_object_object_add(section.get(), "LogData", owned.release());
  json_object_object_add(message, section_key, section.release());
  if (s_is_given(realm)) {
    s_add_text(message, "realmID", realm);
  }
  return 0;
}

int kv_log_add_scanlog_section(json_object* message, const char* path, const char* realm,
                               json_object* data) {
  kv_json_ptr owned{data};
  if (message == nullptr) {
    return -1;
  }
  kv_json_ptr section{json_object_new_object()};
  if (!section) {
    KV_LOG_ERROR("Failed to allocate %s", "logsection_json");
    return -1;
  }
  s_add_text(section.get(), "ScanLogPath", path == nullptr ? "" : path);
  json_object_object_add(section.get(), "LogData", owned.release());
  s_add_text(message, "realmID", realm == nullptr ? "" : realm);
  json_object_object_add(message, "ScanLog", section.release());
  return 0;
}

int kv_log_enqueue(kv_pqueue_t* queue, char type, json_object* message) {
  if (message == nullptr) {
    return -1;
  }
  const kv_json_ptr reference{json_object_get(message)};
  if (queue == nullptr) {
    return -1;
  }
  const char* text = json_object_to_json_string_ext(message, KV_JSON_PRETTY);
  if (text == nullptr) {
    return -1;
  }
  KV_LOG_TRACE("Enqueuing %s", text);
  if (kv_pqueue_push(queue, type, text, std::strlen(text)) != 0) {
    KV_LOG_ERROR("Failed to persist %s message in queue: %s",
                 type == KV_PQUEUE_EVENT ? "event" : "log", text);
    return -1;
  }
  return 0;
}

int kv_log_send_event(kv_pqueue_t* queue, std::int32_t type, const char* realm, const char* sid,
                      const char* filename, const char* error, const char* blocking_reason,
                      const char* event_message, kv_secretbox_key* key) {
  const kv_json_ptr message{kv_log_create_message()};
  if (!message) {
    KV_LOG_ERROR("Failed to allocate %s", "kvlog");
    return -1;
  }
  json_object_object_add(message.get(), "Command", json_object_new_int(kEventCommand));
  s_add_optional_text(message.get(), "realmID", realm);
  s_add_optional_text(message.get(), "SID", sid);
  kv_json_ptr event = s_new_event_section(type, filename, error, blocking_reason, event_message);
  if (!event) {
    return -1;
  }
  if (key == nullptr) {
    json_object_object_add(message.get(), "Event", event.release());
    KV_LOG_TRACE("Added PLAIN event section");
  } else if (!s_add_encrypted_section(message.get(), event.get(), key)) {
    return -1;
  }
  return kv_log_enqueue(queue, KV_PQUEUE_EVENT, message.get());
}

json_object* kv_log_create_epolog_json(std::int32_t event_id, const char* filename,
                                       const char* threat_name, const char* threat_category,
                                       const char* threat_type, const char* action,
                                       const char* lib_version, const char* dat_version) {
  kv_json_ptr log{json_object_new_object()};
  if (!log) {
    return nullptr;
  }
  const auto add = [&log](const char* key, const char* text) {
    s_add_text(log.get(), key, text == nullptr ? "" : text);
  };
  add("LogType", "EPOLog");
  json_object_object_add(log.get(), "Timestamp", json_object_new_int64(std::time(nullptr)));
  json_object_object_add(log.get(), "EventID", json_object_new_int(event_id));
  add("Filename", filename);
  add("Threat-Name", threat_name);
  add("Threat-Category", threat_category);
  add("Threat-Type", threat_type);
  add("Action-taken", action);
  add("Lib-Version", lib_version);
  add("DAT-Version", dat_version);
  return log.release();
}

char* kv_log_create_delimited_eventID_string(const char* prefix, json_object* message) {
  std::string event_id;
  if (kv_json_get_text(message, "EventID", event_id) != kv_json_presence::present) {
    event_id = "not set";
  }
  return strdup(((s_is_given(prefix) ? prefix : kDefaultEventIdPrefix) + event_id).c_str());
}
