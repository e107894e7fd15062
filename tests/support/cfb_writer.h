#pragma once
// Small writer of compound files for tests. It makes sound files; tests make every defect they want
// by overwriting fields, whose places the image knows.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::uint8_t kCfbStorage = 1;
inline constexpr std::uint8_t kCfbStream = 2;
inline constexpr std::uint8_t kCfbRoot = 5;
inline constexpr std::uint32_t kCfbNone = 0xFFFFFFFF;
inline constexpr std::uint32_t kCfbEndOfChain = 0xFFFFFFFE;

// A storage with children or a stream with data.
struct cfb_node {
  std::string name;  // low bytes of its characters
  std::uint8_t type = kCfbStorage;
  std::string data;
  std::vector<cfb_node> children;
};
[[nodiscard]] inline cfb_node cfb_storage(std::string name, std::vector<cfb_node> children = {}) {
  return {std::move(name), kCfbStorage, {}, std::move(children)};
}
[[nodiscard]] inline cfb_node cfb_stream(std::string name, std::string data = {}) {
  return {std::move(name), kCfbStream, std::move(data), {}};
}

struct cfb_options {
  std::uint32_t b_shift = 9;
  std::uint32_t s_shift = 6;
  std::uint32_t padding_blocks = 0;  // blocks of unused data, to make the file long
  bool balanced = false;             // siblings as a balanced tree instead of a list of next links
};

struct cfb_image {
  std::string bytes;
  std::uint32_t b_shift = 9;
  std::vector<std::uint32_t> directory_blocks;
  std::vector<std::uint32_t> table_blocks;
  std::vector<std::uint32_t> meta_blocks;
  std::vector<std::uint32_t> small_table_blocks;
  std::vector<std::uint32_t> mini_stream_blocks;

  [[nodiscard]] std::size_t block_offset(std::uint32_t block) const {
    return (std::size_t{block} + 1) << b_shift;
  }
  // Where an entry of the directory lies; entries are numbered in the order of the tree given, the
  // root first, parents before children.
  [[nodiscard]] std::size_t entry_offset(std::size_t index) const;
  // Where the table's word about a block lies.
  [[nodiscard]] std::size_t table_offset(std::uint32_t block) const;

  void put16(std::size_t offset, std::uint32_t value);
  void put32(std::size_t offset, std::uint32_t value);
  [[nodiscard]] std::uint32_t get32(std::size_t offset) const;
  void set_name(std::size_t index, std::string_view name);
  void set_type(std::size_t index, std::uint8_t type);
  void set_links(std::size_t index, std::uint32_t prev, std::uint32_t next, std::uint32_t child);
  void set_link_next(std::size_t index, std::uint32_t next) {
    put32(entry_offset(index) + 72, next);
  }
  void set_link_child(std::size_t index, std::uint32_t child) {
    put32(entry_offset(index) + 76, child);
  }
};

[[nodiscard]] cfb_image make_cfb(const std::vector<cfb_node>& children,
                                 const cfb_options& options = {});
