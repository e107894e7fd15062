#include "activecontent/kvactivecontent_service_internal.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

bool s_matches(const kv_ac_definition& definition, const char* realm, const char* sid) {
  return (realm == nullptr || definition.realm == realm) &&
         (sid == nullptr || definition.sid == sid);
}

}  // namespace

// Neither text can hold a zero, so that no two pairs share a key.
std::string kv_ac_definition_store::s_key(const std::string& realm, const std::string& sid) {
  std::string key;
  key.reserve(realm.size() + 1 + sid.size());
  return key.append(realm).append(1, '\0').append(sid);
}

void kv_ac_definition_store::index(const kv_ac_definition& definition) {
  if (definition.parameters) {
    first_.try_emplace(s_key(definition.realm, definition.sid), definition.parameters);
  }
}

void kv_ac_definition_store::add(kv_ac_definition definition) {
  definitions_.push_back(std::move(definition));
  try {
    index(definitions_.back());
  } catch (...) {
    definitions_.pop_back();  // an entry that no lookup finds would be fetched again and again
    throw;
  }
}

kv_ac_parameter_list_ptr kv_ac_definition_store::find(const std::string& realm,
                                                      const std::string& sid) const {
  const auto found = first_.find(s_key(realm, sid));
  return found == first_.end() ? nullptr : found->second;
}

std::vector<kv_ac_definition> kv_ac_definition_store::remove(const char* realm, const char* sid) {
  const auto gone = std::stable_partition(
      definitions_.begin(), definitions_.end(),
      [&](const kv_ac_definition& definition) { return !s_matches(definition, realm, sid); });
  std::vector<kv_ac_definition> removed{std::make_move_iterator(gone),
                                        std::make_move_iterator(definitions_.end())};
  definitions_.erase(gone, definitions_.end());
  // Every entry of a pair matches or none does, so that the entries that stay keep their places in
  // the index.
  for (const kv_ac_definition& definition : removed) {
    first_.erase(s_key(definition.realm, definition.sid));
  }
  return removed;
}
