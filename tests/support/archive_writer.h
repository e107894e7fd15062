#pragma once
// Archives and compressed data for tests, made in memory by the library that reads them, and zip
// archives made by hand where defects are wanted.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct archive_member {
  std::string path;
  std::string content;
};

// A whole archive in a format ("zip", "gnutar", "cpio", "7zip", ...) with filters applied from the
// inside out ("gzip", "xz", ...). Throws std::runtime_error when the library refuses.
[[nodiscard]] std::string make_archive(const std::vector<archive_member>& members,
                                       const char* format = "zip",
                                       const std::vector<std::string>& filters = {},
                                       const char* options = nullptr);
// The bytes through one filter ("gzip", "bzip2", "compress", "lzma", "xz", "lzip", "uuencode",
// "lz4", "zstd").
[[nodiscard]] std::string compress_bytes(std::string_view bytes, const char* filter);

// One member of a zip archive made by hand.
struct raw_zip_member {
  std::string path;
  std::string data;          // as it lies in the file
  std::uint16_t method = 0;  // 0 stored, 8 deflated
  std::uint16_t flags = 0;   // bit 11 (0x800): the name is UTF-8; bit 3: lengths stand behind
  std::uint32_t crc = 0;
  std::int64_t size = -1;  // declared size; -1 for that of the data
  bool in_directory = true;
};
inline constexpr std::uint16_t kZipUtf8Name = 0x800;
inline constexpr std::uint16_t kZipLengthBehind = 0x8;
[[nodiscard]] std::string make_raw_zip(const std::vector<raw_zip_member>& members,
                                       bool with_directory = true);
