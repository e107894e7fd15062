// The directory of a compound file.
#include <algorithm>

#include "activecontent/pole_internal.h"

namespace POLE {

namespace {

constexpr std::size_t kNameLengthAt = 64;
constexpr std::size_t kTypeAt = 66;
constexpr std::size_t kStartAt = 116;
constexpr std::size_t kSizeAt = 120;
constexpr std::uint8_t kStreamType = 2;
constexpr std::size_t kMostCharacters = 32;
constexpr std::uint8_t kFirstPrintable = 32;

}  // namespace

void DirTree::load(const std::vector<std::uint32_t>& chain, const BlockFile& file) {
  file_ = file;
  std::uint64_t total = 0;
  for (const std::uint32_t block : chain) {
    const std::size_t there = file.block(block).size();
    if (there == 0) {
      continue;
    }
    if (there < file.block_size()) {
      short_block_ = blocks_.size();
      missing_ = file.block_size() - there;
    }
    blocks_.push_back(block);
    total += there;
  }
  count_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(total / kEntrySize, kNoBlock));
}

// What the block that holds an offset of the directory gives from there on. Behind a block that the
// buffer's end cuts, offsets are shorter by what it lacks.
bytes DirTree::segment_at(std::uint64_t offset) const {
  const std::uint64_t block_size = file_.block_size();
  const std::uint64_t behind_short = (short_block_ + 1) * block_size - missing_;
  if (missing_ != 0 && offset >= behind_short) {
    offset += missing_;
  }
  const auto index = static_cast<std::size_t>(offset >> file_.shift());
  const bytes block = file_.block(blocks_[index]);
  return block.subspan(static_cast<std::size_t>(offset & (block_size - 1)));
}

void DirTree::copy_bytes(std::uint64_t offset, raw_entry& copy) const {
  for (std::size_t done = 0; done < copy.size();) {
    const bytes rest = segment_at(offset + done);
    const std::size_t count = std::min(rest.size(), copy.size() - done);
    std::copy_n(rest.begin(), count, copy.begin() + static_cast<std::ptrdiff_t>(done));
    done += count;
  }
}

// An entry's bytes where they lie; put together in the copy when they lie in several blocks.
const std::uint8_t* DirTree::raw(std::uint32_t index, raw_entry& copy) const {
  const std::uint64_t offset = std::uint64_t{index} * kEntrySize;
  const bytes there = segment_at(offset);
  if (there.size() >= kEntrySize) {
    return there.data();
  }
  copy_bytes(offset, copy);
  return copy.data();
}

std::uint32_t DirTree::field(std::uint32_t index, std::size_t offset) const {
  raw_entry copy;
  return little32(raw(index, copy) + offset);
}

bool DirTree::is_storage(std::uint32_t index) const {
  raw_entry copy;
  return raw(index, copy)[kTypeAt] != kStreamType;
}

// A control character in front of a name (the format marks property streams so) does not belong to
// it.
EntryName DirTree::name(std::uint32_t index) const {
  raw_entry copy;
  const std::uint8_t* at = raw(index, copy);
  const std::size_t most = std::min<std::size_t>(little16(at + kNameLengthAt) / 2, kMostCharacters);
  EntryName name;
  while (name.end < most && at[std::size_t{2} * name.end] != 0) {
    name.text[name.end] = static_cast<char>(at[std::size_t{2} * name.end]);
    ++name.end;
  }
  name.begin = name.end > 0 && static_cast<std::uint8_t>(name.text[0]) < kFirstPrintable ? 1 : 0;
  return name;
}

DirEntry DirTree::entry(std::uint32_t index) const {
  raw_entry copy;
  const std::uint8_t* at = raw(index, copy);
  DirEntry entry;
  entry.name = name(index).view();
  entry.dir = at[kTypeAt] != kStreamType;
  entry.prev = prev(index);
  entry.next = next(index);
  entry.child = child(index);
  entry.start = little32(at + kStartAt);
  entry.size = little32(at + kSizeAt);
  return entry;
}

std::vector<std::uint32_t> DirTree::children(std::uint32_t index) const {
  std::vector<std::uint32_t> found;
  SiblingWalk{*this}.dirtree_find_siblings(child(index), [&](std::uint32_t entry) {
    found.push_back(entry);
    return true;
  });
  return found;
}

std::optional<std::uint32_t> DirTree::entry(const std::string& path) const {
  if (count_ == 0) {
    return std::nullopt;
  }
  SiblingWalk walk{*this};
  std::uint32_t current = 0;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view part = std::string_view{path}.substr(at, end - at);
    at = end + 1;
    if (part.empty()) {
      continue;
    }
    std::optional<std::uint32_t> match;
    walk.dirtree_find_siblings(child(current), [&](std::uint32_t entry) {
      if (name(entry).view() == part) {
        match = entry;
      }
      return !match;
    });
    if (!match) {
      return std::nullopt;
    }
    current = *match;
  }
  return current;
}

}  // namespace POLE
