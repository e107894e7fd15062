#pragma once
// What the files of the list share.

#include <atomic>
#include <list>

#include "common/simclist.h"

struct list_state {
  std::list<void*> elements;
  std::list<void*>::iterator next;           // of the iterator, while it is active
  std::atomic<bool> iterator_active{false};  // two threads may try to set it at once
  list_comparator comparator = nullptr;
  list_seeker seeker = nullptr;
  list_meter meter = nullptr;
  bool copies = false;  // elements are copies that the list frees
  list_hash_computer hash_computer = nullptr;
  list_serializer serializer = nullptr;
  list_unserializer unserializer = nullptr;
};

// FNV-1a, 64 bits.
[[nodiscard]] inline list_hash_t list_hash_bytes(const void* bytes, std::size_t length,
                                                 list_hash_t hash = 14695981039346656037ULL) {
  const auto* const first = static_cast<const unsigned char*>(bytes);
  for (std::size_t i = 0; i < length; ++i) {
    hash = (hash ^ first[i]) * 1099511628211ULL;
  }
  return hash;
}
