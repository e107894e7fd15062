#define KV_LOG_UNIT "kvactivecontent_msoffice"
#include <array>
#include <cstdio>
#include <exception>
#include <string_view>

#include "activecontent/kv_archive_listing.h"
#include "activecontent/kvactivecontent_detectors.h"
#include "activecontent/kvactivecontent_msoffice.h"
#include "logging/log-helper.h"

namespace {

constexpr std::string_view kObjects = "ObjectPool";
constexpr std::string_view kMacros = "Macros";
constexpr int kNotOpened = -1;
constexpr int kNotRead = -2;

// Opens the document and looks for all tokens in one walk: a bit for each one found, up to the
// first token; or the negative code of a document that cannot be read.
int s_find_in_doc(std::span<const std::uint8_t> document,
                  std::span<const std::string_view> tokens) {
  try {
    POLE::Storage storage{document.data(), document.size()};
    if (!storage.open()) {
      return kNotRead;
    }
    const unsigned found = storage.find_names("/", tokens);
    storage.close();
    return static_cast<int>(found);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
    return kNotOpened;
  }
}

// What the two tests of the detector find. Both are answered by the first walk.
class document_names {
 public:
  explicit document_names(const scanobject& job)
      : object_(kv_object_bytes(job)),
        objects_asked_(kv_scan_switch_is_on(job, KV_AC_MSOFFICE_OLE)),
        macros_asked_(kv_scan_switch_is_on(job, KV_AC_MSOFFICE_MACRO)) {}

  [[nodiscard]] int has_objects() { return result() < 0 ? result() : result() & 1; }
  [[nodiscard]] int has_macros() {
    return result() < 0 ? result() : (result() >> (objects_asked_ ? 1 : 0)) & 1;
  }

 private:
  int result() {
    if (!walked_) {
      walked_ = true;
      const std::array<std::string_view, 2> tokens{kObjects, kMacros};
      result_ = s_find_in_doc(object_,
                              std::span{tokens}.subspan(objects_asked_ ? 0 : 1,
                                                        objects_asked_ && macros_asked_ ? 2 : 1));
    }
    return result_;
  }

  std::span<const std::uint8_t> object_;
  bool objects_asked_;
  bool macros_asked_;
  bool walked_ = false;
  int result_ = 0;
};

struct name_test {
  const char* checking;
  const char* found;  // takes the object's name
  const char* not_found;
  const char* reason;
};
constexpr name_test kObjectTest{"Checking for OLE", "OLE object found in %s ", "No OLE found",
                                "\"OLE object\" detected in MS-Office document"};
constexpr name_test kMacroTest{"Checking for macros", "Macro found in %s ", "No macros found",
                               "\"Macro\" detected in MS-Office document"};

std::int32_t s_report(const name_test& test, int result, const scanobject& job, char* reason) {
  if (result < 0) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, "kvactivecontent_msoffice_CDFv2", "%s",
              result == kNotOpened ? "Invalid CDFv2 file" : "Error reading buffer");
    return KV_RESULT_NOT_READABLE;
  }
  if (result == 0) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_msoffice_CDFv2", "%s", test.not_found);
    return KV_RESULT_CLEAN;
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_msoffice_CDFv2", test.found,
            job.object_name != nullptr ? job.object_name : "");
#pragma GCC diagnostic pop
  static_cast<void>(std::snprintf(reason, KV_REASON_SIZE, "%s", test.reason));
  KV_LOG_AS(KV_LOG_LEVEL_WARN, "kvactivecontent_msoffice_CDFv2", "%s", reason);
  return KV_RESULT_ACTIVE_CONTENT;
}

}  // namespace

int hasToken(int depth, const POLE::Storage& storage, const std::string& path, const char* token) {
  KV_LOG_TRACE("Searching %s at depth %d", path.c_str(), depth);
  const std::string_view tokens[]{token};
  return storage.find_names(path, tokens) != 0 ? 1 : 0;
}

int kvactivecontent_find_in_doc(const std::uint8_t* bytes, std::uint64_t length,
                                const char* token) {
  const std::string_view tokens[]{token};
  return s_find_in_doc({bytes, length}, tokens);
}

int kvactivecontent_check_CDFv2_for_OLE(const std::uint8_t* bytes, std::uint64_t length) {
  return kvactivecontent_find_in_doc(bytes, length, kObjects.data());
}

int kvactivecontent_check_CDFv2_for_macro(const std::uint8_t* bytes, std::uint64_t length) {
  return kvactivecontent_find_in_doc(bytes, length, kMacros.data());
}

std::int32_t kvactivecontent_msoffice_CDFv2(scanobject* job, char* reason) {
  int rc = KV_RESULT_CLEAN;
  KV_TRACE_SCOPE(rc);
  document_names names{*job};
  if (kv_scan_switch_is_on(*job, KV_AC_MSOFFICE_OLE)) {
    KV_LOG_DEBUG("%s", kObjectTest.checking);
    rc = s_report(kObjectTest, names.has_objects(), *job, reason);
  }
  if (rc == KV_RESULT_CLEAN && kv_scan_switch_is_on(*job, KV_AC_MSOFFICE_MACRO)) {
    KV_LOG_DEBUG("%s", kMacroTest.checking);
    rc = s_report(kMacroTest, names.has_macros(), *job, reason);
  }
  return rc;
}
