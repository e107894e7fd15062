#pragma once
// The detection service's process-wide state, private to its units and their tests. One lock guards
// the tenants' definitions and the description; parameter lists have shared owners, so that a flush
// cannot free one that a scan is walking.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "activecontent/kvactivecontent_service.h"
#include "worker/kv_worker_RecursiveScan.h"

// A named switch of a definition, in the control service's order.
struct kv_ac_parameter {
  std::string name;
  std::int32_t value;  // non-zero is on
};
using kv_ac_parameter_list = std::vector<kv_ac_parameter>;
using kv_ac_parameter_list_ptr = std::shared_ptr<const kv_ac_parameter_list>;

struct kv_ac_definition {
  std::string realm;
  std::string sid;
  kv_ac_parameter_list_ptr parameters;  // null when there was no memory for it
};

// What the service-initialisation reply is built from.
struct kv_service_description_t {
  const char* name;
  std::uint32_t major_version;
  std::uint32_t minor_version;
  std::uint32_t number_of_signatures;
  std::uint32_t number_of_variants;
  std::int64_t timestamp;
};

// Definitions in the order they were stored. Of several for one pair the first counts, and is found
// without a walk. Not locked by itself.
class kv_ac_definition_store {
 public:
  void add(kv_ac_definition definition);
  // Null when the pair has none.
  [[nodiscard]] kv_ac_parameter_list_ptr find(const std::string& realm,
                                              const std::string& sid) const;
  // Takes out what matches (null stands for any) and returns it.
  [[nodiscard]] std::vector<kv_ac_definition> remove(const char* realm, const char* sid);
  [[nodiscard]] const std::vector<kv_ac_definition>& all() const { return definitions_; }

 private:
  static std::string s_key(const std::string& realm, const std::string& sid);
  void index(const kv_ac_definition& definition);

  std::vector<kv_ac_definition> definitions_;
  std::unordered_map<std::string, kv_ac_parameter_list_ptr> first_;
};

// How a definition is asked for: kv_amqp_send_recv_json, or a test's answer.
using kv_ac_fetch =
    std::function<json_object*(kv_amqp_config* config, const char* service, const char* request,
                               std::int32_t timeout_ms, std::uint32_t retries, char* error_text)>;

struct kv_service_state_t {
  // Constant after global init.
  std::int64_t program_timestamp = 0;  // modification time of the program's file
  kv_ac_fetch fetch_definition = kv_amqp_send_recv_json;
  kv_recursive_scan_ptr recursive_scan;  // what embedded objects are handed on with

  // Guarded by the lock.
  std::mutex lock;
  kv_ac_definition_store definitions;
  std::unique_ptr<kv_service_description_t> description;
};

// Sets every field of the state's description; the caller holds the lock.
void kvactivecontent_describe_service(kv_service_state_t& state);
