#pragma once
// A generic doubly linked list of element pointers, with optional behaviour set by attributes:
// compare, seek, copy, hash, serialize. By default the elements belong to the caller; with a
// copy-size meter the list stores copies (from malloc) and frees them. Functions return 0 or -1
// where nothing else is said; yes/no questions answer 1 or 0. One thread at a time per list, save
// the start of the iterator, which two threads may attempt at once: one of them gets it.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct list_state;
struct list_t {
  list_state* state;  // owned, null before list_init and after list_destroy
};

// Negative, zero or positive as a orders before, with or behind b.
using list_comparator = int (*)(const void* a, const void* b);
// Non-zero when the element is the one that the indicator describes.
using list_seeker = int (*)(const void* element, const void* indicator);
// Size of an element in bytes.
using list_meter = std::size_t (*)(const void* element);
using list_hash_t = std::uint64_t;
using list_hash_computer = list_hash_t (*)(const void* element);
// A newly allocated (malloc) byte form of the element and its length; null on failure.
using list_serializer = void* (*)(const void* element, std::uint32_t* length);
// A newly allocated (malloc) element from its byte form; null for bytes that are none.
using list_unserializer = void* (*)(const void* bytes, std::uint32_t* length);

[[nodiscard]] int list_init(list_t* list);
// Clears and releases everything. A list that was destroyed may be initialized again.
void list_destroy(list_t* list);

// Attributes; a null function switches one off. Copying is to be set while the list is empty.
int list_attributes_comparator(list_t* list, list_comparator comparator);
int list_attributes_seeker(list_t* list, list_seeker seeker);
int list_attributes_copy(list_t* list, list_meter meter, int copy_data);
int list_attributes_hash_computer(list_t* list, list_hash_computer computer);
int list_attributes_serializer(list_t* list, list_serializer serializer);
int list_attributes_unserializer(list_t* list, list_unserializer unserializer);

[[nodiscard]] std::size_t list_size(const list_t* list);
[[nodiscard]] int list_empty(const list_t* list);

// Adding and removing fail while the iterator is active, save where said. A position counts from 0;
// inserting at the size appends.
[[nodiscard]] int list_append(list_t* list, const void* element);
[[nodiscard]] int list_prepend(list_t* list, const void* element);
[[nodiscard]] int list_insert_at(list_t* list, const void* element, std::size_t position);

// The element at a position, still in the list, or null.
[[nodiscard]] void* list_get_at(const list_t* list, std::size_t position);
// The largest or smallest element by the comparator; null without one or when empty.
[[nodiscard]] void* list_get_max(const list_t* list);
[[nodiscard]] void* list_get_min(const list_t* list);
// Removes the first element, or the one at a position, and hands it to the caller (who frees a
// copy). Null when there is none.
[[nodiscard]] void* list_fetch(list_t* list);
[[nodiscard]] void* list_extract_at(list_t* list, std::size_t position);

// Removes the first element equal to the given one by the comparator (without one: the same
// pointer). -1 when there is none.
int list_delete(list_t* list, const void* element);
int list_delete_at(list_t* list, std::size_t position);
// Both ends belong to the range.
int list_delete_range(list_t* list, std::size_t first, std::size_t last);
// Removes all elements and frees copies.
int list_clear(list_t* list);

// The position of the first element equal to the given one, or -1.
[[nodiscard]] ssize_t list_locate(const list_t* list, const void* element);
[[nodiscard]] int list_contains(const list_t* list, const void* element);
// The first element that the seeker takes for the indicated one, or null.
[[nodiscard]] void* list_seek(const list_t* list, const void* indicator);

// Initializes dest with the elements of a, then those of b, and the attributes of a.
[[nodiscard]] int list_concat(const list_t* a, const list_t* b, list_t* dest);
// Sorts by the comparator, ascending for 1, descending for -1; equal elements keep their order.
[[nodiscard]] int list_sort(list_t* list, int direction);
// A value that depends on every element's hash and on their order; without a hash computer on the
// pointers.
[[nodiscard]] int list_hash(const list_t* list, list_hash_t* out);

// One iterator per list. Starting fails while it is active; next returns null at the end.
[[nodiscard]] int list_iterator_start(list_t* list);
[[nodiscard]] int list_iterator_hasnext(const list_t* list);
[[nodiscard]] void* list_iterator_next(list_t* list);
int list_iterator_stop(list_t* list);

// A dump, all numbers little-endian: "KVLIST01"; seconds since 1970 (8 bytes); number of elements
// (8); number of bytes that follow, without the end mark (8); each element as length (4) and bytes;
// "KVLISTEND". The bytes come from the serializer, else the meter says how many are taken as they
// are.
struct list_dump_info_t {
  std::uint64_t timestamp;  // seconds since 1970
  std::uint64_t count;      // elements
  std::uint64_t size;       // bytes of the whole dump
  int complete;             // 1 when everything is there and consistent
};

// Dumping writes to the descriptor's position or replaces a file.
[[nodiscard]] int list_dump_filedescriptor(const list_t* list, int descriptor);
[[nodiscard]] int list_dump_file(const list_t* list, const char* path);
// Restoring appends; it adds nothing unless the whole dump can be read. Without an unserializer the
// list must store copies.
[[nodiscard]] int list_restore_filedescriptor(list_t* list, int descriptor);
[[nodiscard]] int list_restore_file(list_t* list, const char* path);
// -1 for what does not begin like a dump. Reads the descriptor from its position on.
[[nodiscard]] int list_dump_getinfo_filedescriptor(int descriptor, list_dump_info_t* info);
[[nodiscard]] int list_dump_getinfo_file(const char* path, list_dump_info_t* info);

// The typed families: list_comparator_int8_t, list_meter_int8_t, list_hashcomputer_int8_t and so
// on.
#define KV_LIST_FAMILY(type_name)                                              \
  [[nodiscard]] int list_comparator_##type_name(const void* a, const void* b); \
  [[nodiscard]] std::size_t list_meter_##type_name(const void* element);       \
  [[nodiscard]] list_hash_t list_hashcomputer_##type_name(const void* element);
#define KV_LIST_FAMILIES(family)                                                                  \
  family(int8_t) family(int16_t) family(int32_t) family(int64_t) family(uint8_t) family(uint16_t) \
      family(uint32_t) family(uint64_t) family(float) family(double) family(string)
KV_LIST_FAMILIES(KV_LIST_FAMILY)
#undef KV_LIST_FAMILY
