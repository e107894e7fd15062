#pragma once
// What the compound-file reader is made of. Private to the reader and its tests.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "activecontent/pole.h"

namespace POLE {

using bytes = std::span<const std::uint8_t>;

inline constexpr std::size_t kHeaderSize = 512;
inline constexpr std::size_t kHeaderBlocks = 109;  // table block numbers held by the header
inline constexpr std::size_t kHeaderBlocksAt = 76;
inline constexpr std::size_t kEntrySize = 128;
inline constexpr std::uint32_t kSmallStream = 4096;    // the one threshold that the format allows
inline constexpr std::uint32_t kNoBlock = 0xFFFFFFFF;  // a free entry; also "no entry" in a tree
inline constexpr std::uint32_t kFirstSpecial = 0xFFFFFFFA;  // block numbers from here on mean none

[[nodiscard]] inline std::uint32_t little16(const std::uint8_t* at) {
  return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8;
}
[[nodiscard]] inline std::uint32_t little32(const std::uint8_t* at) {
  return little16(at) | little16(at + 2) << 16;
}

// The first 512 bytes.
struct Header {
  std::array<std::uint8_t, 8> id;
  std::uint32_t b_shift;
  std::uint32_t s_shift;
  std::uint32_t num_bat;
  std::uint32_t dirent_start;
  std::uint32_t threshold;
  std::uint32_t sbat_start;
  std::uint32_t num_sbat;
  std::uint32_t mbat_start;
  std::uint32_t num_mbat;

  [[nodiscard]] static Header decode(std::span<const std::uint8_t, kHeaderSize> first);
  [[nodiscard]] bool has_signature() const;
  [[nodiscard]] bool valid() const;
};

// The big blocks of a buffer: block n lies at (n + 1) times the block size.
class BlockFile {
 public:
  BlockFile() = default;
  BlockFile(bytes buffer, std::uint32_t shift) : buffer_(buffer), shift_(shift) {}
  [[nodiscard]] std::uint32_t shift() const { return shift_; }
  [[nodiscard]] std::size_t block_size() const { return std::size_t{1} << shift_; }
  // The bytes of a block that are there: fewer at the end of the buffer, none outside it.
  [[nodiscard]] bytes block(std::uint32_t number) const {
    const std::uint64_t start = (std::uint64_t{number} + 1) << shift_;
    if (start >= buffer_.size()) {
      return {};
    }
    const bytes rest = buffer_.subspan(static_cast<std::size_t>(start));
    return rest.first(std::min(rest.size(), block_size()));
  }
  // A word of a block; none where the buffer ends before it.
  [[nodiscard]] std::optional<std::uint32_t> word(std::uint32_t number, std::size_t index) const {
    const bytes there = block(number);
    if (index * 4 + 4 > there.size()) {
      return std::nullopt;
    }
    return little32(&there[index * 4]);
  }

 private:
  bytes buffer_;
  std::uint32_t shift_ = 0;
};

// A block allocation table, read in place: nothing but the numbers of its own blocks is kept, and
// of these only what the header does not hold.
class AllocTable {
 public:
  AllocTable() = default;
  // The big-block table: numbers in the header, the rest in the meta blocks' chain.
  void load(const Header& header, bytes header_blocks, const BlockFile& file);
  // A table in blocks whose numbers are known.
  void load(std::vector<std::uint32_t> blocks, const BlockFile& file);

  // How many blocks the table knows.
  [[nodiscard]] std::uint64_t size() const;
  // The number that follows a block in its chain; none when the block is outside the table.
  [[nodiscard]] std::optional<std::uint32_t> next(std::uint32_t block) const;
  // The chain that begins at a block, up to the first number outside the table and the first block
  // seen twice.
  [[nodiscard]] std::vector<std::uint32_t> follow(std::uint32_t start) const;

 private:
  [[nodiscard]] std::uint32_t table_block(std::size_t index) const;
  [[nodiscard]] std::size_t chain_length(std::uint32_t start) const;
  void load_meta_blocks(const Header& header);

  BlockFile file_;
  bytes header_blocks_;                // the first numbers, as they lie in the header
  std::vector<std::uint32_t> metas_;   // blocks that hold the further numbers
  std::vector<std::uint32_t> listed_;  // or the numbers themselves
  std::size_t count_ = 0;              // blocks of the table
};

// One entry of the directory, decoded.
struct DirEntry {
  std::string name;
  bool dir = false;  // a storage: any type but stream
  std::uint32_t prev = kNoBlock;
  std::uint32_t next = kNoBlock;
  std::uint32_t child = kNoBlock;
  std::uint32_t start = kNoBlock;
  std::uint32_t size = 0;
};

// A name as it is compared: low bytes of its characters, no allocation.
struct EntryName {
  std::array<char, 32> text;
  std::uint8_t begin = 0;
  std::uint8_t end = 0;
  [[nodiscard]] std::string_view view() const {
    return {text.data() + begin, static_cast<std::size_t>(end - begin)};
  }
};

// The directory: entries read in place from the blocks of its chain.
class DirTree {
 public:
  void load(const std::vector<std::uint32_t>& chain, const BlockFile& file);
  [[nodiscard]] std::uint32_t count() const { return count_; }

  [[nodiscard]] DirEntry entry(std::uint32_t index) const;
  // The entry at a path; none when a part is missing. Of equal names the first in tree order.
  [[nodiscard]] std::optional<std::uint32_t> entry(const std::string& path) const;
  [[nodiscard]] EntryName name(std::uint32_t index) const;
  [[nodiscard]] bool is_storage(std::uint32_t index) const;
  [[nodiscard]] std::uint32_t prev(std::uint32_t index) const { return field(index, 68); }
  [[nodiscard]] std::uint32_t next(std::uint32_t index) const { return field(index, 72); }
  [[nodiscard]] std::uint32_t child(std::uint32_t index) const { return field(index, 76); }
  // The children of an entry in tree order: previous, self, next; each once.
  [[nodiscard]] std::vector<std::uint32_t> children(std::uint32_t index) const;

 private:
  using raw_entry = std::array<std::uint8_t, kEntrySize>;
  [[nodiscard]] const std::uint8_t* raw(std::uint32_t index, raw_entry& copy) const;
  [[nodiscard]] std::uint32_t field(std::uint32_t index, std::size_t offset) const;
  void copy_bytes(std::uint64_t offset, raw_entry& copy) const;
  [[nodiscard]] bytes segment_at(std::uint64_t offset) const;

  BlockFile file_;
  std::vector<std::uint32_t> blocks_;  // those with bytes
  std::size_t short_block_ = 0;        // the one of them that the buffer's end cuts
  std::uint64_t missing_ = 0;          // bytes that it lacks
  std::uint32_t count_ = 0;
};

// Collects the entries that hang together by their previous and next links, in tree order. The
// marks of one collection cost nothing to clear, so that one object serves a whole walk.
class SiblingWalk {
 public:
  explicit SiblingWalk(const DirTree& tree) : tree_(tree), seen_(tree.count(), 0) {}
  // Calls visit(index) for each entry until it answers false.
  template <class Visit>
  void dirtree_find_siblings(std::uint32_t start, Visit visit) {
    ++round_;
    open_.clear();
    descend(start);
    while (!open_.empty()) {
      const std::uint32_t entry = open_.back();
      open_.pop_back();
      if (!visit(entry)) {
        return;
      }
      descend(tree_.next(entry));
    }
  }

 private:
  // Down the previous links, as far as they lead to entries not seen yet.
  void descend(std::uint32_t entry) {
    while (entry < seen_.size() && seen_[entry] != round_) {
      seen_[entry] = round_;
      open_.push_back(entry);
      entry = tree_.prev(entry);
    }
  }

  const DirTree& tree_;
  std::vector<std::uint32_t> seen_;  // the round in which each entry was seen last
  std::vector<std::uint32_t> open_;
  std::uint32_t round_ = 0;
};

// Search for tokens in all names at or below a storage.
[[nodiscard]] unsigned search_names(const DirTree& tree, std::uint32_t storage,
                                    std::span<const std::string_view> tokens);

class StorageIO {
 public:
  explicit StorageIO(bytes buffer) : buffer_(buffer) {}

  void load();
  void close();
  [[nodiscard]] Storage::Result result() const { return result_; }
  [[nodiscard]] const DirTree& dirtree() const { return dirtree_; }
  [[nodiscard]] const Header& header() const { return header_; }

  // The blocks of a stream: small ones when its size is below the threshold.
  [[nodiscard]] std::vector<std::uint32_t> stream_blocks(const DirEntry& entry);
  // The bytes of a block that are there.
  [[nodiscard]] bytes loadBigBlock(std::uint32_t block) const { return file_.block(block); }
  [[nodiscard]] bytes loadSmallBlock(std::uint32_t block);

 private:
  void load_mini_stream();

  bytes buffer_;
  Storage::Result result_ = Storage::OpenFailed;
  Header header_{};
  BlockFile file_;
  AllocTable bbat_;
  AllocTable sbat_;
  DirTree dirtree_;
  bool has_mini_stream_ = false;
  std::vector<std::uint32_t> mini_blocks_;
};

class StreamIO {
 public:
  StreamIO(StorageIO& storage, const std::string& path);
  std::size_t read(std::uint8_t* data, std::size_t length);
  void seek(std::uint64_t position) { position_ = position; }
  [[nodiscard]] std::uint64_t tell() const { return position_; }
  [[nodiscard]] std::uint64_t size() const { return entry_.size; }
  [[nodiscard]] bool fail() const { return fail_; }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  // Makes the cache hold the block at the position; false where there are no bytes.
  bool updateCache();
  [[nodiscard]] bool is_small() const { return entry_.size < kSmallStream; }

  StorageIO& storage_;
  std::string path_;
  DirEntry entry_;
  bool fail_ = true;
  std::vector<std::uint32_t> blocks_;
  std::uint64_t position_ = 0;
  bytes cache_;  // one block-sized window
  std::uint64_t cache_block_ = std::numeric_limits<std::uint64_t>::max();
};

}  // namespace POLE
