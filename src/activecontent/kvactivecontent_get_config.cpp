#include "activecontent/kvactivecontent_service_internal.h"
#include "activecontent/kvactivecontent_switches.h"

#include <algorithm>
#include <array>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "common/kv_json.h"
#include "logging/log-helper.h"

namespace {

constexpr std::int32_t kFetchTimeoutMs = 5000;
constexpr std::uint32_t kFetchRetries = 3;
constexpr int kRequestTextFlags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
constexpr const char* kAny = "ALL";

// Names under which the steps behind the entries log.
constexpr const char* kLoader = "kvactivecontent_load_ac_definition";
constexpr const char* kApplier = "kvactivecontent_extract_ac_parameters";
constexpr const char* kFlusher = "kvactivecontent_free_definitions";

// A text as it stands between the quotes of a JSON string: plain names stay as they are, and no
// name can end its string and add keys of its own.
std::string s_json_text(const char* text) {
  const kv_json_ptr value{json_object_new_string(text)};
  const char* const quoted =
      value ? json_object_to_json_string_ext(value.get(), kRequestTextFlags) : nullptr;
  if (quoted == nullptr) {
    throw std::bad_alloc{};
  }
  const std::string_view view{quoted};
  return std::string{view.substr(1, view.size() - 2)};
}

std::string s_definition_request(const char* realm, const char* sid) {
  return "{ \"Command\" : " + std::to_string(KV_COMMAND_GET_DEFINITION) + " , \"realmID\" : \"" +
         s_json_text(realm) + "\", \"SID\" : \"" + s_json_text(sid) + "\" }";
}

kv_json_ptr s_fetch(const kv_worker_config_t* config, const kv_service_state_t& state,
                    const char* realm, const char* sid) {
  char error[KV_ERROR_TEXT_SIZE]{};
  return kv_json_ptr{state.fetch_definition(
      config == nullptr ? nullptr : config->amqp, KV_CONTROL_SERVICE,
      s_definition_request(realm, sid).c_str(), kFetchTimeoutMs, kFetchRetries, error)};
}

// The definition's array, borrowed from the reply; null when there is none.
json_object* s_definition_array(json_object* reply) {
  json_object* array = nullptr;
  const bool found = json_object_object_get_ex(reply, "Active-content-definition", &array) != 0 &&
                     json_object_is_type(array, json_type_array);
  return found ? array : nullptr;
}

// An element of another form than [name, value] has an empty name or the value 0.
kv_ac_parameter s_parameter(json_object* element) {
  if (!json_object_is_type(element, json_type_array)) {
    return {};
  }
  const char* const name = json_object_get_string(json_object_array_get_idx(element, 0));
  return {name == nullptr ? "" : name, json_object_get_int(json_object_array_get_idx(element, 1))};
}

void s_add_parameters(json_object* array, kv_ac_parameter_list& list) {
  const std::size_t count = json_object_array_length(array);
  for (std::size_t i = 0; i < count; ++i) {
    kv_ac_parameter parameter = s_parameter(json_object_array_get_idx(array, i));
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kLoader, "Added parameter:  %s => %d", parameter.name.c_str(),
              parameter.value);
    list.push_back(std::move(parameter));
  }
}

// Keeps what was read before memory ran out.
kv_ac_parameter_list_ptr s_parameter_list(json_object* array) {
  std::shared_ptr<kv_ac_parameter_list> list;
  try {
    list = std::make_shared<kv_ac_parameter_list>();
    s_add_parameters(array, *list);
  } catch (const std::bad_alloc&) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kLoader, "Failed to allocate %s", list ? "entry" : "result");
  }
  return list;
}

int s_store(kv_service_state_t& state, const char* realm, const char* sid,
            kv_ac_parameter_list_ptr parameters) {
  try {
    kv_ac_definition definition{realm, sid, std::move(parameters)};
    const std::lock_guard guard{state.lock};
    state.definitions.add(std::move(definition));
    return 1;
  } catch (const std::bad_alloc&) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kLoader, "Failed to allocate %s", "ac_definition");
    return -1;
  }
}

// The entry that a walk over the list finds, with the line that each entry passed leaves.
kv_ac_parameter_list_ptr s_walk(const kv_ac_definition_store& store, const std::string& realm,
                                const std::string& sid) {
  for (const kv_ac_definition& entry : store.all()) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, "s_get_parameter_list", "Have parameters list for %s/%s",
              entry.realm.c_str(), entry.sid.c_str());
    if (entry.parameters && entry.realm == realm && entry.sid == sid) {
      return entry.parameters;
    }
  }
  return nullptr;
}

kv_ac_parameter_list_ptr s_get_parameter_list(kv_service_state_t& state, const char* realm,
                                              const char* sid) {
  KV_LOG_DEBUG("Looking up parameters list for %s/%s", realm, sid);
  const std::lock_guard guard{state.lock};
  kv_ac_parameter_list_ptr found = log_is_enabled(KV_LOG_LEVEL_TRACE)
                                       ? s_walk(state.definitions, realm, sid)
                                       : state.definitions.find(realm, sid);
  if (found) {
    KV_LOG_DEBUG("Found parameters list for %s/%s", realm, sid);
  }
  return found;
}

// The pair's list, fetched when it is not there yet; null when none could be had.
kv_ac_parameter_list_ptr s_have_parameter_list(kv_worker_config_t* config,
                                               kv_service_state_t& state, const char* realm,
                                               const char* sid) {
  kv_ac_parameter_list_ptr list = s_get_parameter_list(state, realm, sid);
  if (list) {
    return list;
  }
  KV_LOG_DEBUG("Parameters for %s/%s not yet retrieved", realm, sid);
  if (kvactivecontent_load_ac_definition(config, &state, realm, sid) != 1) {
    KV_LOG_ERROR("Failed to load active content definition for %s/%s", realm, sid);
    return nullptr;
  }
  return s_get_parameter_list(state, realm, sid);
}

void s_set_switch(ActiveContent_t& block, const kv_ac_parameter& parameter) {
  const auto* const named =
      std::ranges::find(KV_AC_SWITCHES, parameter.name, &kv_ac_named_switch::name);
  if (named == KV_AC_SWITCHES.end()) {
    return;
  }
  block.slots[named->slot] = static_cast<std::uint8_t>(parameter.value);
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kApplier, "Blocking %s is %s", parameter.name.c_str(),
            parameter.value != 0 ? "ON" : "OFF");
}

const char* s_or_any(const char* text) {
  return text == nullptr ? kAny : text;
}

int s_load(const kv_worker_config_t* config, kv_service_state_t& state, const char* realm,
           const char* sid) {
  const kv_json_ptr reply = s_fetch(config, state, realm, sid);
  json_object* const array = s_definition_array(reply.get());
  if (array == nullptr) {
    KV_LOG_AS(KV_LOG_LEVEL_ERROR, kLoader, "Failed to get active content definitions for %s/%s",
              realm, sid);
    return -1;
  }
  const int stored = s_store(state, realm, sid, s_parameter_list(array));
  if (stored == 1) {
    KV_LOG_AS(KV_LOG_LEVEL_DEBUG, kLoader, "Stored active content definitions for %s/%s", realm,
              sid);
  }
  return stored;
}

int s_apply(kv_worker_config_t* config, scanobject& job, kv_service_state_t& state,
            const char* realm, const char* sid) {
  const kv_ac_parameter_list_ptr list = s_have_parameter_list(config, state, realm, sid);
  if (!list) {
    return -1;
  }
  const std::lock_guard guard{state.lock};
  for (const kv_ac_parameter& parameter : *list) {
    s_set_switch(*job.ActiveContent, parameter);
  }
  return 0;
}

int s_flush(kv_service_state_t& state, const char* realm, const char* sid, bool all) {
  int freed = 0;
  const std::lock_guard guard{state.lock};
  auto removed = state.definitions.remove(all ? nullptr : realm, all ? nullptr : sid);
  for (kv_ac_definition& definition : removed) {
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kFlusher, "Freeing active content definitions for %s/%s",
              definition.realm.c_str(), definition.sid.c_str());
    definition = {};
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kFlusher, "Freed active content definitions for %s/%s",
              s_or_any(realm), s_or_any(sid));
    ++freed;
  }
  return freed;
}

}  // namespace

int kvactivecontent_load_ac_definition(kv_worker_config_t* config, kv_service_state_t* state,
                                       const char* realm, const char* sid) {
  try {
    return s_load(config, *state, realm, sid);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
    return -1;
  }
}

int kvactivecontent_extract_ac_parameters(kv_worker_config_t* config, scanobject* job,
                                          kv_service_state_t* state, const char* realm,
                                          const char* sid) {
  try {
    return s_apply(config, *job, *state, realm, sid);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
    return -1;
  }
}

void kvactivecontent_free_definitions(kv_service_state_t* state, const char* realm, const char* sid,
                                      bool all) {
  if (all) {
    KV_LOG_DEBUG("Flushing ALL active content definitions");
  } else {
    KV_LOG_DEBUG("Flushing for active content definitions for %s/%s", s_or_any(realm),
                 s_or_any(sid));
  }
  try {
    const int freed = s_flush(*state, realm, sid, all);
    KV_LOG_DEBUG("Freed %d active content definitions", freed);
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
  }
}
