#pragma once
// A walk through the members of an object that may be an archive, with every format and filter of
// libarchive that starts no program. Names are found whatever language they are in, members are
// read in blocks, and the walk ends when its time or the bytes that it may unpack are spent. One
// thread per walk; the object outlives it. No file is opened, none is written.

#include <archive.h>
#include <archive_entry.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "common/kv_archive_budget.h"
#include "common/kv_archive_filters.h"
#include "common/kv_archive_input.h"
#include "common/kv_guard.h"

// The bytes of one member, with a zero behind them. Grows with the bytes that really come.
class kv_member_bytes {
 public:
  [[nodiscard]] std::string_view text() const { return {data_ ? data_.get() : "", size_}; }
  // Room for count more bytes behind the ones that are there; null when out of memory.
  [[nodiscard]] char* room(std::size_t count);
  void added(std::size_t count);
  void clear() { size_ = 0; }

 private:
  kv_text_ptr data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

enum class kv_member_read {
  done,         // whole, or as much as there is
  failed,       // damaged, encrypted, or of a method that the library does not know
  unallocated,  // 2 GiB and more, or out of memory
  cut,          // the walk's budget is spent
};

class kv_archive_walk {
 public:
  explicit kv_archive_walk(std::span<const std::uint8_t> object, kv_time_source time = {});
  kv_archive_walk(const kv_archive_walk&) = delete;  // the library keeps addresses of its parts
  kv_archive_walk& operator=(const kv_archive_walk&) = delete;

  // False when the object is no archive, or the budget is spent.
  [[nodiscard]] bool open();
  // Goes to the next member. False at the end, at a header that cannot be read, or when the budget
  // is spent.
  [[nodiscard]] bool next();
  // The member's path; empty when the archive gives none. Valid until the next call.
  [[nodiscard]] std::string_view name() const { return name_; }
  // Reads the member that next() found.
  [[nodiscard]] kv_member_read read(kv_member_bytes& content);

  [[nodiscard]] kv_archive_cut cut() const { return budget_.cut(); }
  // Code and text of the last failure of the library.
  [[nodiscard]] int error_code() const;
  [[nodiscard]] const char* error_text() const;

 private:
  [[nodiscard]] bool filtered_contents_fit();
  [[nodiscard]] bool open_plain();
  [[nodiscard]] bool open_filtered();
  [[nodiscard]] bool open_tree_list();
  [[nodiscard]] bool leave_member();
  [[nodiscard]] int read_header();
  void count_links();
  [[nodiscard]] bool skip_unpacks() const;
  [[nodiscard]] bool drain();
  [[nodiscard]] std::string zip_names_between(std::size_t first, std::size_t data);
  [[nodiscard]] std::string raw_zip_name();
  [[nodiscard]] std::optional<std::int64_t> declared_size() const;

  std::span<const std::uint8_t> object_;
  kv_archive_budget budget_;
  kv_filter_chain filters_;
  kv_archive_input input_{budget_};
  kv_archive_ptr handle_;
  archive_entry* entry_ = nullptr;  // owned by the handle
  bool filtered_ = false;
  bool in_member_ = false;
  bool member_was_read_ = false;
  std::uint64_t members_given_ = 0;   // bytes of members read so far
  std::uint64_t headers_sought_ = 0;  // bytes searched for raw names so far
  std::uint64_t linked_ = 0;          // members of a cpio archive that have further links
  std::string name_;
};
