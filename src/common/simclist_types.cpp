// The typed comparators, meters and hash computers of the list.
#include <cstring>

#include "common/simclist_internal.h"

namespace {

template <class T>
T s_value(const void* element) {
  T value;
  std::memcpy(&value, element, sizeof value);
  return value;
}

template <class T>
int s_compare(const void* a, const void* b) {
  return (s_value<T>(a) > s_value<T>(b)) - (s_value<T>(a) < s_value<T>(b));
}

using string = char;  // so that the families below can name it like a type

template <>
int s_compare<string>(const void* a, const void* b) {
  return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

template <class T>
std::size_t s_size([[maybe_unused]] const void* element) {
  return sizeof(T);
}

template <>
std::size_t s_size<string>(const void* element) {
  return std::strlen(static_cast<const char*>(element)) + 1;
}

// Equal values hash alike: the two zeros of a floating-point type compare equal.
template <class T>
list_hash_t s_hash(const void* element) {
  const T value = s_value<T>(element) + T{};
  return list_hash_bytes(&value, sizeof value);
}

template <>
list_hash_t s_hash<string>(const void* element) {
  return list_hash_bytes(element, std::strlen(static_cast<const char*>(element)));
}

}  // namespace

#define KV_LIST_FAMILY(type)                                  \
  int list_comparator_##type(const void* a, const void* b) {  \
    return s_compare<type>(a, b);                             \
  }                                                           \
  std::size_t list_meter_##type(const void* element) {        \
    return s_size<type>(element);                             \
  }                                                           \
  list_hash_t list_hashcomputer_##type(const void* element) { \
    return s_hash<type>(element);                             \
  }
KV_LIST_FAMILIES(KV_LIST_FAMILY)
