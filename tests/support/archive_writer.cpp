#include "support/archive_writer.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>
#include <stdexcept>

#include "common/kv_archive_filters.h"

namespace {

la_ssize_t s_append(archive* /*handle*/, void* target, const void* bytes, std::size_t length) {
  static_cast<std::string*>(target)->append(static_cast<const char*>(bytes), length);
  return static_cast<la_ssize_t>(length);
}

void s_require(archive* handle, int result) {
  if (result < ARCHIVE_WARN) {
    throw std::runtime_error(archive_error_string(handle));
  }
}

void s_write_member(archive* handle, const archive_member& member) {
  const std::unique_ptr<archive_entry, kv_free_pointer<archive_entry_free>> entry{
      archive_entry_new()};
  archive_entry_set_pathname(entry.get(), member.path.c_str());
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.content.size()));
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), 0644);
  s_require(handle, archive_write_header(handle, entry.get()));
  if (archive_write_data(handle, member.content.data(), member.content.size()) < 0) {
    throw std::runtime_error(archive_error_string(handle));
  }
}

void s_little(std::string& out, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) {
    out.push_back(i < 8 ? static_cast<char>(value >> (8 * i)) : '\0');
  }
}

// The fields that local headers and directory entries share.
void s_zip_fields(std::string& out, const raw_zip_member& member, bool in_directory) {
  const bool behind = !in_directory && (member.flags & kZipLengthBehind) != 0;
  const std::uint64_t size =
      member.size < 0 ? member.data.size() : static_cast<std::uint64_t>(member.size);
  s_little(out, 20, 2);
  s_little(out, member.flags, 2);
  s_little(out, member.method, 2);
  s_little(out, 0x58216000, 4);  // some day
  s_little(out, behind ? 0 : member.crc, 4);
  s_little(out, behind ? 0 : member.data.size(), 4);
  s_little(out, behind ? 0 : size, 4);
  s_little(out, member.path.size(), 2);
  s_little(out, 0, 2);
}

}  // namespace

std::string make_archive(const std::vector<archive_member>& members, const char* format,
                         const std::vector<std::string>& filters, const char* options) {
  std::string out;
  const std::unique_ptr<archive, kv_free_pointer<archive_write_free>> handle{archive_write_new()};
  s_require(handle.get(), archive_write_set_format_by_name(handle.get(), format));
  for (const std::string& filter : filters) {
    s_require(handle.get(), archive_write_add_filter_by_name(handle.get(), filter.c_str()));
  }
  if (options != nullptr) {
    s_require(handle.get(), archive_write_set_options(handle.get(), options));
  }
  archive_write_set_bytes_per_block(handle.get(), 0);
  s_require(handle.get(), archive_write_open(handle.get(), &out, nullptr, s_append, nullptr));
  for (const archive_member& member : members) {
    s_write_member(handle.get(), member);
  }
  s_require(handle.get(), archive_write_close(handle.get()));
  return out;
}

std::string compress_bytes(std::string_view bytes, const char* filter) {
  return make_archive({{"data", std::string{bytes}}}, "raw", {filter});
}

std::string make_raw_zip(const std::vector<raw_zip_member>& members, bool with_directory) {
  std::string out;
  std::string directory;
  std::uint64_t count = 0;
  for (const raw_zip_member& member : members) {
    const std::size_t offset = out.size();
    out += "PK\x03\x04";
    s_zip_fields(out, member, false);
    out += member.path + member.data;
    if ((member.flags & kZipLengthBehind) != 0) {
      out += "PK\x07\x08";
      s_little(out, member.crc, 4);
      s_little(out, member.data.size(), 4);
      s_little(out, member.size < 0 ? member.data.size() : static_cast<std::uint64_t>(member.size),
               4);
    }
    if (member.in_directory) {
      directory += "PK\x01\x02";
      s_little(directory, 20, 2);
      s_zip_fields(directory, member, true);
      s_little(directory, 0, 2 + 2 + 2 + 4);  // comment, disk, attributes
      s_little(directory, offset, 4);
      directory += member.path;
      ++count;
    }
  }
  if (with_directory) {
    const std::size_t start = out.size();
    out += directory + "PK\x05\x06";
    s_little(out, 0, 4);
    s_little(out, count, 2);
    s_little(out, count, 2);
    s_little(out, directory.size(), 4);
    s_little(out, start, 4);
    s_little(out, 0, 2);
  }
  return out;
}
