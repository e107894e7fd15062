#pragma once
// Hands an object, or what filters make of it, to the library in small pieces, and counts the ones
// that it asks for while it reads a header. Some formats have headers without a bound of their own:
// a directory of a CD image, the map of a sparse tar member, the table of names of an ar archive.
// What the library holds for them is a multiple of their length. Belongs to one walk and its
// thread; what it hands out lives as long as its source.

#include <archive.h>

#include <cstdint>
#include <span>

#include "common/kv_archive_budget.h"
#include "common/kv_archive_filters.h"

class kv_archive_input {
 public:
  explicit kv_archive_input(kv_archive_budget& budget) : budget_(budget) {}

  // True for formats that have such headers and need no more than reading forward from memory.
  [[nodiscard]] static bool suits(std::span<const std::uint8_t> object);
  // Opens the archive: an object that lies in memory, or a source that can only be read forward.
  [[nodiscard]] bool open(archive* handle, std::span<const std::uint8_t> object);
  [[nodiscard]] bool open(archive* handle, kv_block_source& source);

  // Around each call that reads a header; opening counts as part of the first.
  void begin_header();
  void end_header() { in_header_ = false; }

 private:
  static la_ssize_t read(archive* handle, void* self, const void** block);
  static la_int64_t skip(archive* handle, void* self, la_int64_t count);
  static la_int64_t seek(archive* handle, void* self, la_int64_t offset, int whence);
  [[nodiscard]] bool refill();
  [[nodiscard]] bool header_fits(archive* handle, std::size_t more);

  kv_archive_budget& budget_;
  std::span<const std::uint8_t> object_;
  kv_block_source* source_ = nullptr;   // null where the object itself is read
  std::span<const std::uint8_t> rest_;  // what was not handed out yet of the object or block
  bool in_header_ = true;
  bool had_header_ = false;
  bool failed_ = false;               // the source is damaged or its budget is spent
  std::uint64_t of_this_header_ = 0;  // bytes
  std::uint64_t of_headers_ = 0;
};
