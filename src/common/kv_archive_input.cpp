#include "common/kv_archive_input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <string_view>

namespace {

using bytes = std::span<const std::uint8_t>;

constexpr std::size_t kPiece = std::size_t{4} << 10;
// The library holds at most half of this many bytes for one byte of a header of any format.
constexpr std::uint64_t kHeldPerHeaderByte = 24;
// It keeps what it read of all directories of a CD image, so many bytes for each of theirs.
constexpr std::uint64_t kHeldPerDirectoryByte = 12;

bool s_is_cd_image(bytes object) {
  constexpr std::size_t kVolume = 16 * 2048 + 1;
  constexpr std::string_view kMagic = "CD001";
  return object.size() >= kVolume + kMagic.size() &&
         std::ranges::equal(
             object.subspan(kVolume, kMagic.size()), kMagic,
             [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
}

// A tar header has no magic number that all writers agree on, but a checksum: the sum of its bytes,
// signed or not, with blanks in the checksum's place.
bool s_is_tar(bytes object) {
  constexpr std::size_t kHeader = 512;
  constexpr std::size_t kField = 148;
  constexpr std::size_t kFieldLength = 8;
  if (object.size() < kHeader) {
    return false;
  }
  const bytes field = object.subspan(kField, kFieldLength);
  std::int64_t sum = std::int64_t{' '} * kFieldLength;
  std::int64_t signed_sum = sum;
  for (std::size_t i = 0; i < kHeader; ++i) {
    if (i < kField || i >= kField + kFieldLength) {
      sum += object[i];
      signed_sum += static_cast<std::int8_t>(object[i]);
    }
  }
  std::int64_t stated = 0;
  for (const std::uint8_t digit : field) {
    stated = digit >= '0' && digit <= '7' ? stated * 8 + (digit - '0') : stated;
  }
  const bool is_binary = (field[0] & 0x80) != 0;
  return is_binary || stated == sum || stated == signed_sum;
}

}  // namespace

bool kv_archive_input::suits(bytes object) {
  return s_is_cd_image(object) || s_is_tar(object);
}

bool kv_archive_input::open(archive* handle, bytes object) {
  object_ = object;
  rest_ = object;
  archive_read_set_seek_callback(handle, seek);
  archive_read_set_skip_callback(handle, skip);
  archive_read_set_read_callback(handle, read);
  archive_read_set_callback_data(handle, this);
  return archive_read_open1(handle) == ARCHIVE_OK;
}

bool kv_archive_input::open(archive* handle, kv_block_source& source) {
  source_ = &source;
  return archive_read_open(handle, this, nullptr, read, nullptr) == ARCHIVE_OK;
}

void kv_archive_input::begin_header() {
  of_this_header_ = had_header_ ? 0 : of_this_header_;
  had_header_ = true;
  in_header_ = true;
}

bool kv_archive_input::refill() {
  if (source_ == nullptr || !rest_.empty()) {
    return true;
  }
  const void* block = nullptr;
  const ssize_t length = source_->next(&block);
  failed_ = length < 0;
  rest_ = length > 0
              ? bytes{static_cast<const std::uint8_t*>(block), static_cast<std::size_t>(length)}
              : bytes{};
  return !failed_;
}

bool kv_archive_input::header_fits(archive* handle, std::size_t more) {
  of_this_header_ += more;
  of_headers_ += more;
  const bool keeps_all =
      (archive_format(handle) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ISO9660;
  const std::uint64_t held = std::max(of_this_header_ * kHeldPerHeaderByte,
                                      keeps_all ? of_headers_ * kHeldPerDirectoryByte : 0);
  if (held > budget_.allowance()) {
    budget_.exhaust();
  }
  return budget_.cut() == kv_archive_cut::none;
}

la_ssize_t kv_archive_input::read(archive* handle, void* self, const void** block) {
  auto& input = *static_cast<kv_archive_input*>(self);
  // Until a header was read, a source's blocks stay whole: without a way to seek, the library reads
  // some formats only from the first of them.
  const bool is_whole = input.source_ != nullptr && !input.had_header_;
  if (!input.refill()) {
    archive_set_error(handle, EIO, "The compressed data cannot be read");
    return -1;
  }
  const bytes piece =
      input.rest_.first(is_whole ? input.rest_.size() : std::min(kPiece, input.rest_.size()));
  if (input.in_header_ && !input.header_fits(handle, piece.size())) {
    archive_set_error(handle, ENOMEM, "The header is too large");
    return -1;
  }
  input.rest_ = input.rest_.subspan(piece.size());
  *block = piece.data();
  return static_cast<la_ssize_t>(piece.size());
}

la_int64_t kv_archive_input::skip(archive* /*handle*/, void* self, la_int64_t count) {
  auto& input = *static_cast<kv_archive_input*>(self);
  const std::size_t skipped = std::min<std::uint64_t>(
      input.rest_.size(), static_cast<std::uint64_t>(std::max<la_int64_t>(count, 0)));
  input.rest_ = input.rest_.subspan(skipped);
  return static_cast<la_int64_t>(skipped);
}

la_int64_t kv_archive_input::seek(archive* /*handle*/, void* self, la_int64_t offset, int whence) {
  auto& input = *static_cast<kv_archive_input*>(self);
  const auto length = static_cast<la_int64_t>(input.object_.size());
  const la_int64_t here = length - static_cast<la_int64_t>(input.rest_.size());
  const la_int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? here : length;
  // Both are compared before they are added.
  if (offset < -base || offset > length - base) {
    return ARCHIVE_FATAL;
  }
  input.rest_ = input.object_.subspan(static_cast<std::size_t>(base + offset));
  return base + offset;
}
