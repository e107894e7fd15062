#pragma once
// What libmagic says about an object, in the two texts that a scan request carries.

#include <magic.h>

#include <memory>
#include <span>
#include <string>

#include "common/kv_guard.h"

namespace kv_scan {

struct file_kind {
  std::string mime;  // MIME type without character set
  std::string type;  // plain description
};

// One libmagic handle; not to be shared between threads.
class file_kind_reader {
 public:
  // Throws std::runtime_error when the database cannot be loaded.
  file_kind_reader();
  // Of an open regular file, from its beginning; its position is moved.
  [[nodiscard]] file_kind of_descriptor(int descriptor) const;
  [[nodiscard]] file_kind of_bytes(std::span<const char> bytes) const;

 private:
  std::unique_ptr<magic_set, kv_free_pointer<magic_close>> magic_;
};

// The MIME type as requests carry it: batch files travel as plain text.
[[nodiscard]] std::string mime_to_send(const std::string& mime);

// "report.PDF" gives ".PDF"; a name without a dot behind its first character gives nothing.
[[nodiscard]] std::string extension_of(const std::string& path);

}  // namespace kv_scan
