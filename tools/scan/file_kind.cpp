#include "file_kind.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace kv_scan {
namespace {

std::string s_text(const char* text) {
  return text == nullptr ? std::string() : text;
}

}  // namespace

file_kind_reader::file_kind_reader() : magic_(magic_open(MAGIC_NONE)) {
  if (!magic_ || magic_load(magic_.get(), nullptr) != 0) {
    throw std::runtime_error("cannot load the libmagic database");
  }
}

file_kind file_kind_reader::of_descriptor(int descriptor) const {
  file_kind kind;
  magic_setflags(magic_.get(), MAGIC_MIME_TYPE);
  ::lseek(descriptor, 0, SEEK_SET);
  kind.mime = s_text(magic_descriptor(magic_.get(), descriptor));
  magic_setflags(magic_.get(), MAGIC_NONE);
  ::lseek(descriptor, 0, SEEK_SET);
  kind.type = s_text(magic_descriptor(magic_.get(), descriptor));
  return kind;
}

file_kind file_kind_reader::of_bytes(std::span<const char> bytes) const {
  file_kind kind;
  magic_setflags(magic_.get(), MAGIC_MIME_TYPE);
  kind.mime = s_text(magic_buffer(magic_.get(), bytes.data(), bytes.size()));
  magic_setflags(magic_.get(), MAGIC_NONE);
  kind.type = s_text(magic_buffer(magic_.get(), bytes.data(), bytes.size()));
  return kind;
}

std::string mime_to_send(const std::string& mime) {
  return mime == "text/x-msdos-batch" ? "text/plain" : mime;
}

std::string extension_of(const std::string& path) {
  return std::filesystem::path(path).extension().string();
}

}  // namespace kv_scan
