#pragma once
// The records of one scan: the job read from the request JSON, the results of its files, and the
// reply rendered from them. They are the contract between the worker, the detectors and the
// clients. A job and its results belong to the thread that handles the request; only the merge of a
// recursive scan's results into a consolidated result is guarded, by that result's own mutex.

#include <json-c/json.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/kv_guard.h"

struct kv_archive_listing;  // member names of the object as an archive, shared by the tests of one
                            // scan
struct kv_scan_result_t;
struct scanobject;

// Result codes, shared by all detectors and replies. Lower is more critical; -100 and everything
// from -199 down block the object.
enum kv_result_code : std::int32_t {
  KV_RESULT_CLEAN = 0,
  KV_RESULT_BAD_INPUT = -1,           // or out of memory at a detector's entry
  KV_RESULT_NOT_READABLE = -100,      // the object could not be read
  KV_RESULT_WITH_REASON = -101,       // carries a reason text
  KV_RESULT_EXTRACTION_DEPTH = -200,  // maximum extraction depth
  KV_RESULT_ACTIVE_CONTENT = -202,    // the blocking reason holds the text
  KV_RESULT_FAILED = -1000,           // failed scan, with the text in the error field
};

// The active-content switches, in slot order.
enum kv_ac_slot : std::size_t {
  KV_AC_EXECUTABLE = 0,
  KV_AC_FLASH,
  KV_AC_GIFAR,
  KV_AC_HTML_EVENTHANDLER,
  KV_AC_HTML_SCRIPT,
  KV_AC_MSOFFICE_JAVA,
  KV_AC_MSOFFICE_OLE,
  KV_AC_MSOFFICE_DDE,
  KV_AC_MSOFFICE_MACRO,
  KV_AC_MSOFFICE_MACRO_SIGNED,
  KV_AC_PDF_ACROFORM,
  KV_AC_PDF_ACTIVEACTION,
  KV_AC_PDF_JAVASCRIPT,
  KV_AC_PDF_LAUNCH,
  KV_AC_PDF_OPENACTION,
  KV_AC_PDF_RICHMEDIA,
  KV_AC_PDF_METADATA_PERL,
  KV_AC_PDF_METADATA_PHP,
  KV_AC_SILVERLIGHT,
  KV_AC_ZIP_JAVA_ARCHIVE,
  KV_AC_XML_JAVASCRIPT,
  KV_AC_XML_XSLT,
  KV_AC_CSV_INJECTION,
  KV_AC_JAVASCRIPT_SOURCE,  // reserved: no definition sets it
  KV_AC_SLOT_COUNT
};

// One byte per switch; on is the value 1. The block is three 64-bit words.
struct ActiveContent_t {
  std::uint8_t slots[KV_AC_SLOT_COUNT];
};
static_assert(sizeof(ActiveContent_t) == 24);

struct ScanConfig_t {
  std::int32_t block_encrypted;
  std::int32_t block_html_in_pdf;
  std::int32_t scan_base64;
  std::int32_t scan_uuencoded;
  std::int32_t scan_xml_content;
  std::int32_t long_mime_types;
  std::int32_t enforce_mime_extension_match;
  std::int32_t html_detection;  // 0 "OFF", 2 "RESTRICTIVE", 3 "SVG", 1 anything else
  std::int64_t scan_min_size;
  std::int64_t scan_max_size;
  std::int32_t scan_timeout;  // milliseconds; 0 or negative for no limit
  std::int32_t scan_bandwidth;
};

// Hands an embedded object (a data URL's or srcdoc's content) on to be scanned as a child of the
// job. Returns the child's result code. The bytes are borrowed for the call; file rows of the child
// go into consolidated, a blocking reason into reason and an error text into error (1024 bytes
// each, may be left untouched). flag is the worker thread's one-byte flag; time_left_ms is what the
// job may still take.
using kv_embedded_scan_fn = std::int32_t (*)(void* context, scanobject* job,
                                             kv_scan_result_t* consolidated, const void* data,
                                             std::uint64_t length, const char* name,
                                             std::uint8_t flag, std::int64_t time_left_ms,
                                             char* reason, char* error);
// Merges the file rows of a child that were collected by themselves into the job's result. 0 or -1.
using kv_embedded_merge_fn = int (*)(void* context, kv_scan_result_t* consolidated,
                                     const kv_scan_result_t* latest);
struct kv_embedded_scan_t {
  kv_embedded_scan_fn scan = nullptr;  // null: embedded objects count as clean
  void* context = nullptr;
  kv_embedded_merge_fn merge = nullptr;  // null: there is nothing to merge
};

// Time budget of a scan without limit.
inline constexpr std::int64_t KV_NO_TIME_LIMIT = INT64_MAX;

// The scan job. Texts are owned and come from the C allocator.
struct scanobject {
  json_object* request;  // the parsed request, borrowed
  std::int32_t recursion;
  std::int32_t shm_id;  // 0xffffffff (-1) when there is no segment
  std::int64_t object_length;
  char* object_name;
  char* services;
  char* scan_extensions;
  char* scan_mime_types;
  char* block_extensions;
  char* block_mime_types;
  std::int32_t extract_depth;
  std::int64_t extract_size;
  std::int32_t extract_ratio;
  std::int64_t extract_max_files;
  bool extract_no_virusscan;
  std::int64_t extension_max_length;
  char* mime_type;
  char* file_type;
  char* extension;  // with its leading dot
  std::int32_t active_content_policy;
  std::int32_t extract;
  std::int32_t check_mime_type;
  char* realm_id;
  char* event_id;
  ActiveContent_t* ActiveContent;
  ScanConfig_t* ScanConfig;
  std::int32_t enforce_mime_policy_in_archives;
  std::int32_t enforce_activecontent_policy_in_archives;

  // Set by the scan handling; not read from the request.
  const void* data;           // the object's bytes, borrowed; null when there are none
  void* thread_context;       // the calling worker thread's parameters, borrowed
  std::uint64_t start_ms;     // start of the scan, as kv_current_time_ms gave it
  std::int64_t limit_ms;      // time budget from start_ms, KV_NO_TIME_LIMIT for none
  std::uint32_t child_count;  // children made so far; the first has number 1
  kv_embedded_scan_t embedded;
  std::shared_ptr<kv_archive_listing>
      archive_listing;  // made by the first archive test of the scan
};

// True when the job's switch equals 1.
[[nodiscard]] inline bool kv_scan_switch_is_on(const scanobject& job, kv_ac_slot slot) {
  return job.ActiveContent->slots[slot] == 1;
}
// What is left of the job's time budget in milliseconds: 0 or less once it is spent,
// KV_NO_TIME_LIMIT for a job without limit.
[[nodiscard]] std::int64_t kv_scan_time_left_ms(const scanobject& job);

// One analysed file. Texts are owned and come from the C allocator.
struct kv_file_scan_result_t {
  std::int32_t return_code;
  char* file_name;  // path inside the object, parents first
  std::uint64_t file_size;
  char* mime_type;
  char* mime_encoding;
  char* file_type;
  char* extension;
  char* blocking_reason;
  char* error;
  std::int32_t object_type;  // -1 when not known
};

struct kv_scan_result_t {
  pthread_mutex_t mutex;  // held by whoever merges another scan's results into this one
  std::int32_t return_code;
  char* reasons;
  char* error;
  std::int32_t file_count;
  kv_file_scan_result_t** files;
  void* buffer;  // one further owned buffer
  std::uint64_t reserved;
};

// Builds the job from a request; null with the reason in error (KV_ERROR_TEXT_SIZE bytes).
[[nodiscard]] scanobject* kv_worker_GetScanJobDetails(json_object* request, char* error);
void kv_worker_FreeScanObject(scanobject** job);
using kv_scanobject_ptr = std::unique_ptr<scanobject, kv_free_address<kv_worker_FreeScanObject>>;
// A job with the defaults, both blocks and no texts: what the builder starts from, and what scans
// without a request (local scans, tests) fill in by hand. Null when out of memory.
[[nodiscard]] scanobject* kv_worker_new_scanobject();

[[nodiscard]] kv_scan_result_t* kv_worker_new_scan_result();
void kv_worker_free_scan_result(kv_scan_result_t** result);
using kv_scan_result_ptr =
    std::unique_ptr<kv_scan_result_t, kv_free_address<kv_worker_free_scan_result>>;

[[nodiscard]] kv_file_scan_result_t* kv_worker_new_file_scan_result();
void kv_worker_free_file_scan_result(kv_file_scan_result_t** result);
using kv_file_scan_result_ptr =
    std::unique_ptr<kv_file_scan_result_t, kv_free_address<kv_worker_free_file_scan_result>>;

// Appends a deep copy. 0 or -1.
[[nodiscard]] int kv_worker_add_file_scan_result(kv_scan_result_t* result,
                                                 const kv_file_scan_result_t* file);
// Merges the file rows of another scan into the consolidated result, holding its mutex: a row of a
// name that is there already completes it, any other is appended. 0 or -1. Any thread.
[[nodiscard]] int kv_worker_merge_scanresults(kv_scan_result_t* consolidated,
                                              const kv_scan_result_t* latest);
// Consolidates the file results into the result's code, reasons and error. 0, or -1 for null and
// when memory runs out; the code is right even then.
[[nodiscard]] int kv_worker_create_scan_results_summary(kv_scan_result_t* result);
// Renders the reply; a newly allocated text or null.
[[nodiscard]] char* kv_worker_create_scan_reply(const kv_scan_result_t* result);
[[nodiscard]] char* kv_worker_CreateServiceInitializeReply(
    std::int32_t return_code, const char* driver_name, std::uint32_t major_version,
    std::uint32_t minor_version, std::int64_t number_of_viruses, std::int64_t number_of_variants,
    std::int64_t timestamp);
