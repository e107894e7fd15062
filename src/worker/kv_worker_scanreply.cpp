#define KV_LOG_UNIT "kv_worker"
#include "worker/kv_worker_scan_types.h"

#include "common/kv_json.h"
#include "logging/log-helper.h"
#include "messaging/kvhlp_replies.h"

namespace {

// Builds one object, key by key in the order of the calls. Once a value cannot be made, the rest is
// skipped and the object is not complete.
class object_builder {
 public:
  object_builder() : object_(json_object_new_object()), complete_(object_ != nullptr) {}

  // Takes the value over. The key is a literal that outlives the object and is new in it.
  object_builder& add(const char* key, json_object* value) {
    kv_json_ptr owned{value};
    if (complete_ && owned &&
        json_object_object_add_ex(object_.get(), key, owned.get(),
                                  JSON_C_OBJECT_ADD_KEY_IS_NEW | JSON_C_OBJECT_ADD_CONSTANT_KEY) ==
            0) {
      static_cast<void>(owned.release());
    } else {
      complete_ = false;
    }
    return *this;
  }
  object_builder& add_text(const char* key, const char* text) {
    return add(key, json_object_new_string(text == nullptr ? "" : text));
  }
  object_builder& add_int(const char* key, std::int32_t value) {
    return add(key, json_object_new_int(value));
  }
  object_builder& add_int64(const char* key, std::int64_t value) {
    return add(key, json_object_new_int64(value));
  }
  // The object, or null when it is not complete.
  [[nodiscard]] kv_json_ptr take() { return complete_ ? std::move(object_) : nullptr; }
  [[nodiscard]] explicit operator bool() const { return complete_; }

 private:
  kv_json_ptr object_;
  bool complete_;
};

// A file without a blocking reason has a blank as its virus name.
const char* s_virus_name(const kv_file_scan_result_t& file) {
  const bool none = file.blocking_reason == nullptr || *file.blocking_reason == '\0';
  return none ? " " : file.blocking_reason;
}

kv_json_ptr s_file_row(const kv_file_scan_result_t& file) {
  return object_builder{}
      .add_int("ReturnCode", file.return_code)
      .add_text("File-name", file.file_name)
      .add("File-size", json_object_new_uint64(file.file_size))
      .add_text("MIME-type", file.mime_type)
      .add_text("MIME-encoding", file.mime_encoding)
      .add_text("File-type", file.file_type)
      .add_text("Extension", file.extension)
      .add_int("Object-type", file.object_type)
      .add_text("Virusname", s_virus_name(file))
      .take();
}

// Null after logging what failed.
kv_json_ptr s_file_rows(const kv_scan_result_t& result) {
  kv_json_ptr rows{json_object_new_array_ext(result.file_count)};
  if (!rows) {
    KV_LOG_ERROR("Failed to allocate new json object results_array");
    return nullptr;
  }
  for (std::int32_t i = 0; i < result.file_count; ++i) {
    kv_json_ptr row = s_file_row(*result.files[i]);
    if (!row) {
      KV_LOG_ERROR("Failed to add file-scan result");
      return nullptr;
    }
    if (json_object_array_add(rows.get(), row.get()) != 0) {
      KV_LOG_ERROR("Failed to add file-scan result to array");
      return nullptr;
    }
    static_cast<void>(row.release());
  }
  return rows;
}

// What a scan that ran to its end answers beside its code. False when it could not be added.
bool s_add_verdict(object_builder& reply, const kv_scan_result_t& result) {
  if (result.reasons != nullptr) {
    reply.add_text("Blocking-reason", result.reasons);
  }
  reply.add_int("FilesScanned", result.file_count);
  kv_json_ptr rows = s_file_rows(result);
  return rows && reply.add("Results", rows.release());
}

kv_json_ptr s_scan_reply(const kv_scan_result_t& result) {
  object_builder reply;
  if (!reply) {
    KV_LOG_ERROR("Failed to allocate new json object reply_json");
    return nullptr;
  }
  reply.add_int("ReturnCode", result.return_code);
  if (result.return_code == KV_RESULT_FAILED) {
    reply.add_text("Error", result.error);
  } else if (!s_add_verdict(reply, result)) {
    return nullptr;
  }
  return reply.take();
}

kv_json_ptr s_service_reply(std::int32_t return_code, const char* driver_name,
                            std::uint32_t major_version, std::uint32_t minor_version,
                            std::int64_t number_of_viruses, std::int64_t number_of_variants,
                            std::int64_t timestamp) {
  constexpr std::uint32_t kLow16 = 0xffff;
  object_builder reply;
  reply.add_int("ReturnCode", return_code);
  KV_LOG_TRACE("stored RC");
  reply.add_int("MajorVersion", static_cast<std::int32_t>(major_version & kLow16))
      .add_int("MinorVersion", static_cast<std::int32_t>(minor_version & kLow16))
      .add_int64("NumberOfViruses", number_of_viruses)
      .add_int64("NumberOfVariants", number_of_variants)
      .add_int64("Timestamp", timestamp);
  KV_LOG_TRACE("Stored numericals");
  reply.add_text("DriverName", driver_name);
  KV_LOG_TRACE("Stored name \"%s\"", driver_name);
  return reply.take();
}

}  // namespace

char* kv_worker_create_scan_reply(const kv_scan_result_t* result) {
  if (result == nullptr) {
    KV_LOG_ERROR("Invalid pointer result");
    return nullptr;
  }
  const kv_json_ptr reply = s_scan_reply(*result);
  if (!reply) {
    return nullptr;
  }
  kv_text_ptr text = kv_json_print(reply.get(), KV_JSON_PRETTY_PLAIN_SLASH);
  if (text) {
    return text.release();
  }
  char* error_reply = nullptr;
  static_cast<void>(
      kv_reply_set_ERROR(&error_reply, KV_RESULT_FAILED, "Failed to create JSON text buffer"));
  return error_reply;
}

char* kv_worker_CreateServiceInitializeReply(std::int32_t return_code, const char* driver_name,
                                             std::uint32_t major_version,
                                             std::uint32_t minor_version,
                                             std::int64_t number_of_viruses,
                                             std::int64_t number_of_variants,
                                             std::int64_t timestamp) {
  KV_LOG_TRACE("Entering");
  if (driver_name == nullptr) {
    KV_LOG_ERROR("Invalid parameter for DriverName");
    return nullptr;
  }
  const kv_json_ptr reply = s_service_reply(return_code, driver_name, major_version, minor_version,
                                            number_of_viruses, number_of_variants, timestamp);
  if (!reply) {
    KV_LOG_ERROR("Failed to create root JSON object");
    return nullptr;
  }
  kv_text_ptr text = kv_json_print(reply.get(), KV_JSON_SPACED);
  if (!text) {
    KV_LOG_ERROR("Failed to dump JSON Object to string buffer");
    return nullptr;
  }
  KV_LOG_TRACE("Service Initialize Reply (JSON):\r\n%s", text.get());
  KV_LOG_TRACE("Exiting, rc=0x%x", 0U);
  return text.release();
}
