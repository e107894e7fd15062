#include "common/kv_uuid.h"

#include <uuid/uuid.h>

static_assert(sizeof(uuid_t) == sizeof(kv_uuid));

kv_uuid kv_uuid_random() {
  kv_uuid uuid;
  uuid_generate_random(uuid.data());
  return uuid;
}

kv_uuid kv_uuid_from_time() {
  kv_uuid uuid;
  uuid_generate_time(uuid.data());
  return uuid;
}

std::string kv_uuid_text(const kv_uuid& uuid) {
  char text[UUID_STR_LEN];
  uuid_unparse_lower(uuid.data(), text);
  return text;
}
