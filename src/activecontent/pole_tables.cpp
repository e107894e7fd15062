// Header and block allocation tables of a compound file.
#include <algorithm>
#include <utility>

#include "activecontent/pole_internal.h"

namespace POLE {

namespace {

constexpr std::array<std::uint8_t, 8> kSignature{0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
// Numbers of table blocks that a meta block of the usual size holds; the format's rule on how many
// meta blocks there must be counts with it whatever the block size.
constexpr std::uint64_t kUsualMetaNumbers = 127;

// Length of the chain that a function of block numbers makes from a start up to the first repeated
// block (Brent): no memory, however long the chain, and no more than a few times its steps.
template <class Next>
std::size_t s_chain_length(std::uint32_t start, Next next) {
  std::size_t power = 1;
  std::size_t cycle = 1;
  std::size_t steps = 1;
  std::uint32_t slow = start;
  std::optional<std::uint32_t> fast = next(start);
  for (; fast && *fast != slow; ++steps, ++cycle) {
    if (power == cycle) {
      slow = *fast;
      power *= 2;
      cycle = 0;
    }
    fast = next(*fast);
  }
  if (!fast) {
    return steps;
  }
  std::uint32_t ahead = start;
  for (std::size_t i = 0; i < cycle; ++i) {
    ahead = *next(ahead);
  }
  std::size_t before_cycle = 0;
  for (std::uint32_t behind = start; behind != ahead; ++before_cycle) {
    behind = *next(behind);
    ahead = *next(ahead);
  }
  return before_cycle + cycle;
}

}  // namespace

Header Header::decode(std::span<const std::uint8_t, kHeaderSize> first) {
  Header header{};
  std::copy_n(first.begin(), header.id.size(), header.id.begin());
  header.b_shift = little16(&first[30]);
  header.s_shift = little16(&first[32]);
  header.num_bat = little32(&first[44]);
  header.dirent_start = little32(&first[48]);
  header.threshold = little32(&first[56]);
  header.sbat_start = little32(&first[60]);
  header.num_sbat = little32(&first[64]);
  header.mbat_start = little32(&first[68]);
  header.num_mbat = little32(&first[72]);
  return header;
}

bool Header::has_signature() const {
  return id == kSignature;
}

bool Header::valid() const {
  const bool enough_metas = num_bat <= num_mbat * kUsualMetaNumbers + kHeaderBlocks;
  const bool no_needless_metas = num_bat >= kHeaderBlocks || num_mbat == 0;
  return threshold == kSmallStream && num_bat != 0 && enough_metas && no_needless_metas &&
         b_shift >= 7 && b_shift <= 30 && s_shift <= b_shift;
}

void AllocTable::load(const Header& header, bytes header_blocks, const BlockFile& file) {
  file_ = file;
  count_ = std::min<std::size_t>(header.num_bat, kHeaderBlocks);
  header_blocks_ = header_blocks.first(count_ * 4);
  if (header.num_bat > kHeaderBlocks) {
    load_meta_blocks(header);
  }
}

// Each meta block ends with the number of the next one. A block that the buffer's end cuts gives
// the numbers that are there, and no further one.
void AllocTable::load_meta_blocks(const Header& header) {
  const std::size_t numbers = file_.block_size() / 4 - 1;
  const auto next = [&](std::uint32_t block) {
    const auto following = file_.word(block, numbers);
    return following && *following < kFirstSpecial && !file_.block(*following).empty()
               ? following
               : std::nullopt;
  };
  if (header.mbat_start >= kFirstSpecial || file_.block(header.mbat_start).empty()) {
    return;
  }
  const std::size_t wanted = header.num_bat - kHeaderBlocks;
  const std::size_t most = std::min({s_chain_length(header.mbat_start, next),
                                     std::size_t{header.num_mbat}, (wanted - 1) / numbers + 1});
  std::size_t found = 0;
  std::uint32_t block = header.mbat_start;
  for (std::size_t i = 0; i < most; ++i) {
    metas_.push_back(block);
    found += std::min(numbers, file_.block(block).size() / 4);
    block = next(block).value_or(kNoBlock);
  }
  count_ += std::min(wanted, found);
}

void AllocTable::load(std::vector<std::uint32_t> blocks, const BlockFile& file) {
  file_ = file;
  listed_ = std::move(blocks);
  count_ = listed_.size();
}

std::uint64_t AllocTable::size() const {
  return std::min<std::uint64_t>(std::uint64_t{count_} * (file_.block_size() / 4), kFirstSpecial);
}

std::uint32_t AllocTable::table_block(std::size_t index) const {
  if (!listed_.empty()) {
    return listed_[index];
  }
  if (index < header_blocks_.size() / 4) {
    return little32(&header_blocks_[index * 4]);
  }
  index -= header_blocks_.size() / 4;
  const std::size_t numbers = file_.block_size() / 4 - 1;
  return file_.word(metas_[index / numbers], index % numbers).value_or(kNoBlock);
}

std::optional<std::uint32_t> AllocTable::next(std::uint32_t block) const {
  const std::uint32_t words_shift = file_.shift() - 2;
  const std::uint32_t mask = (std::uint32_t{1} << words_shift) - 1;
  if (block >= size()) {
    return std::nullopt;
  }
  // A table block outside the buffer, or cut by its end, leaves free entries.
  return file_.word(table_block(block >> words_shift), block & mask).value_or(kNoBlock);
}

std::size_t AllocTable::chain_length(std::uint32_t start) const {
  return s_chain_length(start, [this](std::uint32_t block) {
    const auto following = next(block);
    return following && *following < size() ? following : std::nullopt;
  });
}

std::vector<std::uint32_t> AllocTable::follow(std::uint32_t start) const {
  if (start >= size()) {
    return {};
  }
  std::vector<std::uint32_t> chain(chain_length(start));
  std::uint32_t block = start;
  for (std::uint32_t& link : chain) {
    link = block;
    block = next(block).value_or(kNoBlock);
  }
  return chain;
}

}  // namespace POLE
