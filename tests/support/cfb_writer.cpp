#include "support/cfb_writer.h"

#include <algorithm>

namespace {

constexpr std::size_t kEntrySize = 128;
constexpr std::size_t kThreshold = 4096;
constexpr std::size_t kHeaderNumbers = 109;

struct flat_entry {
  const cfb_node* node;
  std::uint32_t prev = kCfbNone;
  std::uint32_t next = kCfbNone;
  std::uint32_t child = kCfbNone;
  std::uint32_t start = kCfbEndOfChain;
  std::uint32_t size = 0;
};

class writer {
 public:
  writer(const cfb_node& root, const cfb_options& options) : options_(options), root_(root) {
    image_.b_shift = options.b_shift;
  }

  cfb_image run() {
    reserve_header();
    entries_.push_back({&root_});
    add_children(0);
    place_streams();
    entries_[0].size = static_cast<std::uint32_t>(mini_stream_.size());
    image_.mini_stream_blocks = add_blocks(mini_stream_);
    entries_[0].start = first(image_.mini_stream_blocks);
    image_.small_table_blocks = add_blocks(words(small_table_, kCfbNone));
    image_.directory_blocks = add_blocks(directory());
    blocks_.resize(blocks_.size() + options_.padding_blocks * block_size(), '\0');
    next_.resize(blocks_.size() / block_size(), kCfbEndOfChain);
    add_table();
    image_.bytes = header() + blocks_.substr(reserved_ * block_size());
    return std::move(image_);
  }

 private:
  [[nodiscard]] std::size_t block_size() const { return std::size_t{1} << options_.b_shift; }
  static std::uint32_t first(const std::vector<std::uint32_t>& blocks) {
    return blocks.empty() ? kCfbEndOfChain : blocks.front();
  }
  static void put(std::string& out, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
      out.push_back(static_cast<char>(value >> (8 * i)));
    }
  }

  // Small blocks begin inside the header: the first of them are none.
  void reserve_header() {
    reserved_ = block_size() < 512 ? 512 / block_size() - 1 : 0;
    blocks_.resize(reserved_ * block_size(), '\0');
    next_.resize(reserved_, kCfbEndOfChain);
  }

  void add_children(std::size_t parent) {
    std::vector<std::uint32_t> added;
    for (const cfb_node& child : entries_[parent].node->children) {
      added.push_back(static_cast<std::uint32_t>(entries_.size()));
      entries_.push_back({&child});
      add_children(entries_.size() - 1);
    }
    entries_[parent].child = options_.balanced ? balance(added, 0, added.size()) : chain(added);
  }
  std::uint32_t chain(const std::vector<std::uint32_t>& list) {
    for (std::size_t i = 0; i + 1 < list.size(); ++i) {
      entries_[list[i]].next = list[i + 1];
    }
    return list.empty() ? kCfbNone : list.front();
  }
  std::uint32_t balance(const std::vector<std::uint32_t>& list, std::size_t begin,
                        std::size_t end) {
    if (begin == end) {
      return kCfbNone;
    }
    const std::size_t middle = begin + (end - begin) / 2;
    entries_[list[middle]].prev = balance(list, begin, middle);
    entries_[list[middle]].next = balance(list, middle + 1, end);
    return list[middle];
  }

  void place_streams() {
    for (flat_entry& entry : entries_) {
      const std::string& data = entry.node->data;
      if (data.empty()) {
        continue;
      }
      entry.size = static_cast<std::uint32_t>(data.size());
      if (data.size() >= kThreshold) {
        entry.start = first(add_blocks(data));
      } else {
        entry.start = add_small_blocks(data);
      }
    }
  }
  std::uint32_t add_small_blocks(const std::string& data) {
    const std::size_t small = std::size_t{1} << options_.s_shift;
    const auto start = static_cast<std::uint32_t>(mini_stream_.size() / small);
    const std::size_t count = (data.size() + small - 1) / small;
    for (std::size_t i = 0; i < count; ++i) {
      const auto following = static_cast<std::uint32_t>(start + i + 1);
      small_table_.push_back(i + 1 < count ? following : kCfbEndOfChain);
    }
    mini_stream_ += data;
    mini_stream_.resize((start + count) * small, '\0');
    return start;
  }

  std::vector<std::uint32_t> add_blocks(const std::string& data) {
    std::vector<std::uint32_t> numbers;
    for (std::size_t offset = 0; offset < data.size(); offset += block_size()) {
      numbers.push_back(static_cast<std::uint32_t>(next_.size()));
      next_.push_back(static_cast<std::uint32_t>(next_.size() + 1));
      blocks_ += data.substr(offset, block_size());
      blocks_.resize(next_.size() * block_size(), '\0');
    }
    if (!numbers.empty()) {
      next_.back() = kCfbEndOfChain;
    }
    return numbers;
  }

  // Words in whole blocks.
  std::string words(const std::vector<std::uint32_t>& values, std::uint32_t filler) const {
    std::string out;
    for (const std::uint32_t value : values) {
      put(out, value, 4);
    }
    while (out.size() % block_size() != 0) {
      put(out, filler, 4);
    }
    return out;
  }

  std::string directory() const {
    std::string out;
    for (const flat_entry& entry : entries_) {
      std::string raw;
      for (const char c : entry.node->name.substr(0, 31)) {
        put(raw, static_cast<std::uint8_t>(c), 2);
      }
      raw.resize(64, '\0');
      put(raw, 2 * (std::min<std::size_t>(entry.node->name.size(), 31) + 1), 2);
      put(raw, entry.node->type, 1);
      put(raw, 1, 1);
      put(raw, entry.prev, 4);
      put(raw, entry.next, 4);
      put(raw, entry.child, 4);
      raw.resize(116, '\0');
      put(raw, entry.start, 4);
      put(raw, entry.size, 4);
      raw.resize(kEntrySize, '\0');
      out += raw;
    }
    return out;
  }

  // The table describes its own blocks and the meta blocks too.
  void add_table() {
    const std::size_t per_block = block_size() / 4;
    const auto used = static_cast<std::uint32_t>(next_.size());
    std::size_t tables = 1;
    std::size_t metas = 0;
    while (tables * per_block < used + tables + metas) {
      ++tables;
      metas =
          tables > kHeaderNumbers ? (tables - kHeaderNumbers + per_block - 2) / (per_block - 1) : 0;
    }
    for (std::size_t i = 0; i < tables; ++i) {
      image_.table_blocks.push_back(static_cast<std::uint32_t>(used + i));
      next_.push_back(0xFFFFFFFD);
    }
    for (std::size_t i = 0; i < metas; ++i) {
      image_.meta_blocks.push_back(static_cast<std::uint32_t>(used + tables + i));
      next_.push_back(0xFFFFFFFC);
    }
    blocks_ += words(next_, kCfbNone);
    std::vector<std::uint32_t> numbers;
    for (std::size_t i = 0; i < metas * (per_block - 1); ++i) {
      const std::size_t table = kHeaderNumbers + i;
      numbers.push_back(table < tables ? image_.table_blocks[table] : kCfbNone);
      if ((i + 1) % (per_block - 1) == 0) {
        const std::size_t following = (i + 1) / (per_block - 1);
        numbers.push_back(following < metas ? image_.meta_blocks[following] : kCfbEndOfChain);
      }
    }
    blocks_ += words(numbers, kCfbNone);
  }

  std::string header() const {
    std::string out{"\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1"};
    out.resize(24, '\0');
    put(out, 0x3E, 2);
    put(out, options_.b_shift == 12 ? 4 : 3, 2);
    put(out, 0xFFFE, 2);
    put(out, options_.b_shift, 2);
    put(out, options_.s_shift, 2);
    out.resize(44, '\0');
    put(out, image_.table_blocks.size(), 4);
    put(out, first(image_.directory_blocks), 4);
    put(out, 0, 4);
    put(out, kThreshold, 4);
    put(out, first(image_.small_table_blocks), 4);
    put(out, image_.small_table_blocks.size(), 4);
    put(out, first(image_.meta_blocks), 4);
    put(out, image_.meta_blocks.size(), 4);
    for (std::size_t i = 0; i < kHeaderNumbers; ++i) {
      put(out, i < image_.table_blocks.size() ? image_.table_blocks[i] : kCfbNone, 4);
    }
    out.resize(std::max<std::size_t>(512, block_size()), '\0');
    return out.substr(0, std::max<std::size_t>(512, block_size()));
  }

  cfb_options options_;
  const cfb_node& root_;
  cfb_image image_;
  std::size_t reserved_ = 0;
  std::vector<flat_entry> entries_;
  std::vector<std::uint32_t> next_;  // the table, block by block
  std::string blocks_;
  std::string mini_stream_;
  std::vector<std::uint32_t> small_table_;
};

}  // namespace

std::size_t cfb_image::entry_offset(std::size_t index) const {
  const std::size_t per_block = (std::size_t{1} << b_shift) / kEntrySize;
  return block_offset(directory_blocks.at(index / per_block)) + index % per_block * kEntrySize;
}

std::size_t cfb_image::table_offset(std::uint32_t block) const {
  const std::size_t per_block = (std::size_t{1} << b_shift) / 4;
  return block_offset(table_blocks.at(block / per_block)) + block % per_block * 4;
}

void cfb_image::put16(std::size_t offset, std::uint32_t value) {
  bytes.at(offset) = static_cast<char>(value);
  bytes.at(offset + 1) = static_cast<char>(value >> 8);
}

void cfb_image::put32(std::size_t offset, std::uint32_t value) {
  put16(offset, value & 0xFFFF);
  put16(offset + 2, value >> 16);
}

std::uint32_t cfb_image::get32(std::size_t offset) const {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes.at(offset + i))) << (8 * i);
  }
  return value;
}

void cfb_image::set_name(std::size_t index, std::string_view name) {
  const std::size_t offset = entry_offset(index);
  for (std::size_t i = 0; i < 32; ++i) {
    put16(offset + 2 * i, i < name.size() ? static_cast<std::uint8_t>(name[i]) : 0);
  }
  put16(offset + 64, static_cast<std::uint32_t>(2 * (name.size() + 1)));
}

void cfb_image::set_type(std::size_t index, std::uint8_t type) {
  bytes.at(entry_offset(index) + 66) = static_cast<char>(type);
}

void cfb_image::set_links(std::size_t index, std::uint32_t prev, std::uint32_t next,
                          std::uint32_t child) {
  const std::size_t offset = entry_offset(index);
  put32(offset + 68, prev);
  put32(offset + 72, next);
  put32(offset + 76, child);
}

cfb_image make_cfb(const std::vector<cfb_node>& children, const cfb_options& options) {
  const cfb_node root{"Root Entry", kCfbRoot, {}, children};
  return writer{root, options}.run();
}
