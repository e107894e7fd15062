#include "activecontent/pole.h"

#include <algorithm>

#include "activecontent/pole_internal.h"

namespace POLE {

namespace {

// The first entry is the root, whatever its type.
bool s_is_directory(const DirTree& tree, std::uint32_t index) {
  return index == 0 || tree.is_storage(index);
}

}  // namespace

void StorageIO::load() {
  close();
  std::array<std::uint8_t, kHeaderSize> first{};
  std::copy_n(buffer_.begin(), std::min(buffer_.size(), first.size()), first.begin());
  header_ = Header::decode(first);
  result_ = Storage::NotOLE;
  if (!header_.has_signature()) {
    return;
  }
  result_ = Storage::BadOLE;
  if (buffer_.size() < kHeaderSize || !header_.valid() || header_.threshold != kSmallStream) {
    return;
  }
  file_ = BlockFile{buffer_, header_.b_shift};
  bbat_.load(header_, buffer_.subspan(kHeaderBlocksAt, kHeaderBlocks * 4), file_);
  dirtree_.load(bbat_.follow(header_.dirent_start), file_);
  if (dirtree_.count() == 0) {
    return;
  }
  result_ = Storage::Ok;
}

void StorageIO::close() {
  *this = StorageIO{buffer_};
}

// Needed by small streams only, so that damage to it spoils nothing else.
void StorageIO::load_mini_stream() {
  if (has_mini_stream_) {
    return;
  }
  has_mini_stream_ = true;
  sbat_.load(bbat_.follow(header_.sbat_start), file_);
  mini_blocks_ = bbat_.follow(dirtree_.entry(std::uint32_t{0}).start);
}

std::vector<std::uint32_t> StorageIO::stream_blocks(const DirEntry& entry) {
  if (entry.size >= header_.threshold) {
    return bbat_.follow(entry.start);
  }
  load_mini_stream();
  return sbat_.follow(entry.start);
}

bytes StorageIO::loadSmallBlock(std::uint32_t block) {
  load_mini_stream();
  const std::uint64_t offset = std::uint64_t{block} << header_.s_shift;
  const auto index = offset >> header_.b_shift;
  if (index >= mini_blocks_.size()) {
    return {};
  }
  const bytes big = loadBigBlock(mini_blocks_[static_cast<std::size_t>(index)]);
  const auto within = static_cast<std::size_t>(offset & (file_.block_size() - 1));
  if (within >= big.size()) {
    return {};
  }
  return big.subspan(within, std::min(big.size() - within, std::size_t{1} << header_.s_shift));
}

StreamIO::StreamIO(StorageIO& storage, const std::string& path) : storage_(storage), path_(path) {
  if (storage.result() != Storage::Ok) {
    return;
  }
  const auto index = storage.dirtree().entry(path);
  if (!index || storage.dirtree().is_storage(*index)) {
    return;
  }
  entry_ = storage.dirtree().entry(*index);
  blocks_ = storage.stream_blocks(entry_);
  fail_ = false;
}

bool StreamIO::updateCache() {
  const std::uint32_t shift = is_small() ? storage_.header().s_shift : storage_.header().b_shift;
  const std::uint64_t block = position_ >> shift;
  if (block >= blocks_.size()) {
    return false;
  }
  if (block != cache_block_) {
    const std::uint32_t number = blocks_[static_cast<std::size_t>(block)];
    cache_ = is_small() ? storage_.loadSmallBlock(number) : storage_.loadBigBlock(number);
    cache_block_ = block;
  }
  return position_ - (block << shift) < cache_.size();
}

std::size_t StreamIO::read(std::uint8_t* data, std::size_t length) {
  std::size_t done = 0;
  while (done < length && position_ < size() && updateCache()) {
    const std::uint32_t shift = is_small() ? storage_.header().s_shift : storage_.header().b_shift;
    const bytes rest =
        cache_.subspan(static_cast<std::size_t>(position_ - (cache_block_ << shift)));
    const std::uint64_t left = size() - position_;
    const auto count =
        static_cast<std::size_t>(std::min<std::uint64_t>({rest.size(), length - done, left}));
    std::copy_n(rest.begin(), count, data + done);
    done += count;
    position_ += count;
  }
  return done;
}

Storage::Storage(const std::uint8_t* buffer, std::size_t length)
    : io_(std::make_unique<StorageIO>(bytes{buffer, length})) {}
Storage::~Storage() = default;

bool Storage::open() {
  io_->load();
  return result() == Ok;
}

void Storage::close() {
  io_->close();
}

Storage::Result Storage::result() const {
  return io_->result();
}

std::vector<DirEntry> Storage::dirEntries(const std::string& path) const {
  std::vector<DirEntry> found;
  const DirTree& tree = io_->dirtree();
  const auto storage = tree.entry(path);
  if (storage && s_is_directory(tree, *storage)) {
    for (const std::uint32_t child : tree.children(*storage)) {
      found.push_back(tree.entry(child));
    }
  }
  return found;
}

std::vector<std::string> Storage::entries(const std::string& path) const {
  std::vector<std::string> names;
  for (DirEntry& entry : dirEntries(path)) {
    names.push_back(std::move(entry.name));
  }
  return names;
}

bool Storage::isDirectory(const std::string& path) const {
  const DirTree& tree = io_->dirtree();
  const auto index = tree.entry(path);
  return index && s_is_directory(tree, *index);
}

unsigned Storage::find_names(const std::string& path,
                             std::span<const std::string_view> tokens) const {
  const DirTree& tree = io_->dirtree();
  const auto storage = tree.entry(path);
  return storage ? search_names(tree, *storage, tokens) : 0;
}

Stream::Stream(const Storage& storage, const std::string& path)
    : io_(std::make_unique<StreamIO>(*storage.io_, path)) {}
Stream::~Stream() = default;

std::size_t Stream::read(std::uint8_t* data, std::size_t length) {
  return io_->read(data, length);
}

int Stream::getch() {
  std::uint8_t byte = 0;
  return io_->read(&byte, 1) == 1 ? byte : -1;
}

void Stream::seek(std::uint64_t position) {
  io_->seek(position);
}
std::uint64_t Stream::tell() const {
  return io_->tell();
}
std::uint64_t Stream::size() const {
  return io_->size();
}
bool Stream::eof() const {
  return io_->tell() >= io_->size();
}
bool Stream::fail() const {
  return io_->fail();
}
std::string Stream::fullName() const {
  return io_->path();
}

}  // namespace POLE
