#pragma once
// Archives made by hand whose headers claim what nothing in them bears out.

#include <zlib.h>

#include <cstdint>
#include <string>
#include <string_view>

inline void append_little(std::string& out, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) {
    out.push_back(static_cast<char>(value >> (8 * i)));
  }
}

inline std::string big_endian(std::uint64_t value, int width) {
  std::string out;
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>(value >> shift));
  }
  return out;
}

inline std::uint32_t crc32_of(std::string_view text) {
  return static_cast<std::uint32_t>(
      crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()));
}

inline std::string repeated(std::string_view text, std::size_t count) {
  std::string out;
  out.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) {
    out += text;
  }
  return out;
}

inline std::string bytes_of(std::initializer_list<int> values) {
  std::string out;
  for (const int value : values) {
    out.push_back(static_cast<char>(value));
  }
  return out;
}

// A number as 7z writes it, in its longest form.
inline std::string number_7z(std::uint64_t value) {
  std::string out{"\xFF"};
  append_little(out, value, 8);
  return out;
}

// A 7z archive of packed bytes and a header.
inline std::string archive_7z(std::string_view header, std::string_view packed = {}) {
  std::string start;
  append_little(start, packed.size(), 8);
  append_little(start, header.size(), 8);
  append_little(start, crc32_of(header), 4);
  std::string out{"7z\xBC\xAF\x27\x1C\0\4", 8};
  append_little(out, crc32_of(start), 4);
  return (out + start).append(packed).append(header);
}

// The part of a header that says where packed bytes lie and which coder unpacks them.
inline std::string streams_7z(std::uint64_t packed, const std::string& coder,
                              std::uint64_t unpacked) {
  return bytes_of({6}) + number_7z(0) + number_7z(1) + bytes_of({9}) + number_7z(packed) +
         bytes_of({0, 7, 0x0B}) + number_7z(1) + bytes_of({0, 1}) + coder + bytes_of({0x0C}) +
         number_7z(unpacked) + bytes_of({0});
}

// An archive whose header is packed by a coder (its record in the format) into these bytes.
inline std::string archive_7z_encoded(std::size_t header_length, const std::string& coder,
                                      std::string_view packed) {
  return archive_7z(
      bytes_of({0x17}) + streams_7z(packed.size(), coder, header_length) + bytes_of({0}), packed);
}

inline const std::string kCopy7z = bytes_of({1, 0});

// A header of empty members that all have the same name of one letter, save the last.
inline std::string header_7z_of_members(std::size_t count, std::string_view last_name) {
  std::string names = repeated(std::string_view{"a\0\0\0", 4}, count - 1);
  for (const char c : last_name) {
    names += c;
    names += '\0';
  }
  names += std::string(2, '\0');
  const std::size_t flags = (count + 7) / 8;
  return bytes_of({1, 5}) + number_7z(count) + bytes_of({0x0E}) + number_7z(flags) +
         std::string(flags, '\xFF') + bytes_of({0x11}) + number_7z(names.size() + 1) +
         bytes_of({0}) + names + bytes_of({0, 0});
}

// A header with one folder, whose streams are described by what is given, and claimed members.
inline std::string header_7z_of_streams(const std::string& substreams, std::uint64_t members) {
  return bytes_of({1, 4}) + streams_7z(0, kCopy7z, 0) + bytes_of({8}) + substreams +
         bytes_of({0, 0, 5}) + number_7z(members) + bytes_of({0, 0});
}

// A xar archive of nothing but a table of contents, and that table as deflate packed it.
inline std::string archive_xar(std::string_view table, std::string_view deflated) {
  std::uint64_t a = 1;
  std::uint64_t b = 0;
  for (const char c : table) {
    a = (a + static_cast<std::uint8_t>(c)) % 65521;
    b = (b + a) % 65521;
  }
  const std::string packed = std::string{"\x78\x01"}.append(deflated) + big_endian(b << 16 | a, 4);
  return std::string{"xar!\0\x1C\0\1", 8} + big_endian(packed.size(), 8) +
         big_endian(table.size(), 8) + std::string(4, '\0') + packed;
}

// Deflate without compression.
inline std::string stored_deflate(std::string_view text) {
  std::string out;
  do {
    const std::string_view piece = text.substr(0, 0xFFFF);
    text.remove_prefix(piece.size());
    out.push_back(text.empty() ? '\1' : '\0');
    append_little(out, piece.size(), 2);
    append_little(out, ~piece.size(), 2);
    out += piece;
  } while (!text.empty());
  return out;
}

// A tar header and its content, filled up to whole blocks.
inline std::string tar_member(std::string_view name, char type, std::string_view content) {
  const auto octal = [](std::uint64_t value, int digits) {
    std::string out(static_cast<std::size_t>(digits), '0');
    for (std::size_t i = out.size(); i-- > 0; value >>= 3) {
      out[i] = static_cast<char>('0' + (value & 7));
    }
    return out;
  };
  std::string header(512, '\0');
  header.replace(0, name.size(), name);
  header.replace(100, 7, octal(0644, 7));
  header.replace(124, 11, octal(content.size(), 11));
  header.replace(136, 11, octal(0, 11));
  header.replace(148, 8, 8, ' ');
  header[156] = type;
  header.replace(257, 8,
                 std::string_view{"ustar\0"
                                  "00",
                                  8});
  std::uint64_t sum = 0;
  for (const char c : header) {
    sum += static_cast<std::uint8_t>(c);
  }
  header.replace(148, 7, octal(sum, 6) + '\0');
  header += content;
  return header.append((512 - content.size() % 512) % 512, '\0');
}

// A sparse member in the 1.0 form of GNU tar: the map of its pieces stands before its content.
inline std::string tar_sparse_member(std::size_t pieces) {
  std::string records;
  for (const std::string_view record : {"22 GNU.sparse.major=1\n", "22 GNU.sparse.minor=0\n",
                                        "21 GNU.sparse.name=a\n", "25 GNU.sparse.realsize=9\n"}) {
    records += record;
  }
  std::string map = std::to_string(pieces) + "\n" + repeated("0\n0\n", pieces);
  map.append((512 - map.size() % 512) % 512, '\0');
  return tar_member("x", 'x', records) + tar_member("a", '0', map);
}

// An ar archive whose table of long names has this length.
inline std::string ar_with_names(std::size_t length) {
  const auto field = [](std::string text, std::size_t width) {
    return text.append(width - text.size(), ' ');
  };
  return "!<arch>\n" + field("//", 16) + field("0", 12) + field("0", 6) + field("0", 6) +
         field("0", 8) + field(std::to_string(length), 10) + "`\n" + std::string(length, '\n') +
         field("Main.class/", 16) + field("0", 12) + field("0", 6) + field("0", 6) +
         field("644", 8) + field("0", 10) + "`\n";
}

// A cpio archive of empty members that all claim a further link, and a class.
inline std::string cpio_with_links(std::size_t count) {
  const auto member = [](std::size_t inode, std::string_view name) {
    std::string out;
    for (const std::size_t field :
         {std::size_t{070707}, inode >> 16, inode & 0xFFFF, std::size_t{0100644}, std::size_t{0},
          std::size_t{0}, std::size_t{2}, std::size_t{0}, std::size_t{0}, std::size_t{0},
          name.size(), std::size_t{0}, std::size_t{0}}) {
      append_little(out, field, 2);
    }
    return out.append(name);
  };
  std::string out;
  for (std::size_t i = 0; i < count; ++i) {
    out += member(i, std::string_view{"a\0", 2});
  }
  return out + member(count, std::string_view{"Main.class\0\0", 12});
}

// A CD image whose root directory holds so many empty files and a class.
inline std::string cd_image(std::size_t files) {
  constexpr std::size_t kSector = 2048;
  const auto both = [](std::uint64_t value, int width) {
    std::string out;
    append_little(out, value, width);
    return out + big_endian(value, width);
  };
  const auto record = [&](std::string_view name, std::size_t sector, std::size_t length,
                          int flags) {
    std::string out = bytes_of({0, 0}) + both(sector, 4) + both(length, 4) + std::string(7, '\0') +
                      bytes_of({flags, 0, 0}) + both(1, 2) +
                      bytes_of({static_cast<int>(name.size())}) + std::string{name};
    out.append(out.size() % 2, '\0');
    out[0] = static_cast<char>(out.size());
    return out;
  };
  const auto add = [](std::string& directory, const std::string& entry) {
    const std::size_t room = kSector - directory.size() % kSector;
    directory.append(entry.size() > room ? room : 0, '\0');
    directory += entry;
  };
  const auto directory = [&](std::size_t length) {
    const std::size_t behind = 22 + length / kSector;
    std::string out;
    add(out, record(std::string_view{"\0", 1}, 22, length, 2));
    add(out, record("\1", 22, length, 2));
    for (std::size_t i = 0; i < files; ++i) {
      add(out, record("ab", behind, 1, 0));
    }
    add(out, record("Main.class", behind, 1, 0));
    out.append((kSector - out.size() % kSector) % kSector, '\0');
    return out;
  };
  const std::size_t length = directory(kSector).size();
  std::string volume = bytes_of({1}) + "CD001" + bytes_of({1, 0}) + std::string(64, ' ');
  volume.append(80 - volume.size(), '\0');
  volume += both(24 + length / kSector, 4);
  volume.append(120 - volume.size(), '\0');
  volume += both(1, 2) + both(1, 2) + both(kSector, 2) + both(10, 4);
  volume += bytes_of({19, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0, 0});
  volume += record(std::string_view{"\0", 1}, 22, length, 2);
  volume.append(813 - volume.size(), ' ');
  volume += repeated(std::string(16, '0') + '\0', 4) + bytes_of({1});
  volume.append(kSector - volume.size(), '\0');
  std::string end = bytes_of({255}) + "CD001" + bytes_of({1});
  end.append(kSector - end.size(), '\0');
  return std::string(16 * kSector, '\0') + volume + end + std::string(4 * kSector, '\0') +
         directory(length) + std::string(2 * kSector, '\0');
}
