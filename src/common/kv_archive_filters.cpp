#include "common/kv_archive_filters.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace {

using bytes = std::span<const std::uint8_t>;

// As many layers as the library itself would stack.
constexpr int kMostLayers = 25;
// The search for an uuencoded part gives up behind so many bytes (and the line they end in).
constexpr std::size_t kUuReach = std::size_t{256} << 10;
// No other filter looks further to decide whether it may apply.
constexpr std::size_t kMagicReach = 16;
constexpr std::size_t kBlock = std::size_t{64} << 10;

// The bytes of the object itself, in blocks.
class object_source final : public kv_block_source {
 public:
  explicit object_source(bytes object) : rest_(object) {}
  ssize_t next(const void** block) override {
    const bytes piece = rest_.first(std::min(kBlock, rest_.size()));
    rest_ = rest_.subspan(piece.size());
    *block = piece.data();
    return static_cast<ssize_t>(piece.size());
  }

 private:
  bytes rest_;
};

// Hands a source on in small pieces for as long as it is told to.
class sliced_source final : public kv_block_source {
 public:
  explicit sliced_source(std::unique_ptr<kv_block_source> upstream)
      : upstream_(std::move(upstream)) {}
  void slice_at(std::size_t most) { most_ = most; }
  ssize_t next(const void** block) override {
    if (rest_.empty()) {
      const void* whole = nullptr;
      const ssize_t length = upstream_->next(&whole);
      if (length <= 0) {
        return length;
      }
      rest_ = {static_cast<const std::uint8_t*>(whole), static_cast<std::size_t>(length)};
    }
    const bytes piece = rest_.first(std::min(most_, rest_.size()));
    rest_ = rest_.subspan(piece.size());
    *block = piece.data();
    return static_cast<ssize_t>(piece.size());
  }

 private:
  std::unique_ptr<kv_block_source> upstream_;
  std::size_t most_ = std::numeric_limits<std::size_t>::max();
  bytes rest_;
};

// Each opening has one filter above its source; one that finds more of them is refused.
la_ssize_t s_pull(archive* handle, void* source, const void** block) {
  const bool nested = archive_filter_count(handle) > 2;
  const ssize_t length = nested ? -1 : static_cast<kv_block_source*>(source)->next(block);
  if (length < 0) {
    archive_set_error(handle, EIO, "The layer below cannot be read");
  }
  return length;
}

kv_archive_ptr s_new_raw_reader() {
  kv_archive_ptr handle{archive_read_new()};
  if (handle) {
    archive_read_support_format_raw(handle.get());
    archive_read_support_format_empty(handle.get());
  }
  return handle;
}

// One layer: what a single filter makes of the bytes below it.
class filter_source final : public kv_block_source {
 public:
  filter_source(std::unique_ptr<kv_block_source> upstream, kv_archive_budget& budget)
      : upstream_(std::move(upstream)), budget_(budget) {}

  [[nodiscard]] bool open(int filter) {
    handle_ = s_new_raw_reader();
    if (!handle_ || !choose(filter)) {
      return false;
    }
    const int opened = archive_read_open(handle_.get(), static_cast<kv_block_source*>(&upstream_),
                                         nullptr, s_pull, nullptr);
    upstream_.slice_at(std::numeric_limits<std::size_t>::max());
    archive_entry* entry = nullptr;
    if (opened != ARCHIVE_OK || archive_filter_count(handle_.get()) > 2) {
      return false;
    }
    const int header = archive_read_next_header(handle_.get(), &entry);
    ended_ = header == ARCHIVE_EOF;  // nothing was inside
    return ended_ || header == ARCHIVE_OK;
  }

  ssize_t next(const void** block) override {
    if (ended_) {
      return 0;
    }
    std::size_t length = 0;
    la_int64_t offset = 0;
    const int result = archive_read_data_block(handle_.get(), block, &length, &offset);
    given_ += length;
    ended_ = result == ARCHIVE_EOF;
    if (!budget_.allows(given_) || (result != ARCHIVE_OK && !ended_)) {
      return -1;
    }
    return static_cast<ssize_t>(length);
  }

 private:
  [[nodiscard]] bool choose(int filter) {
    if (filter != ARCHIVE_FILTER_COMPRESS) {
      return archive_read_append_filter(handle_.get(), filter) >= ARCHIVE_WARN;
    }
    // The library can only find this one by itself, and would stack it on itself: it is shown so
    // little at a time that this is noticed before much is unpacked.
    upstream_.slice_at(kMagicReach);
    return archive_read_support_filter_compress(handle_.get()) >= ARCHIVE_WARN;
  }

  sliced_source upstream_;
  kv_archive_budget& budget_;
  kv_archive_ptr handle_;
  std::uint64_t given_ = 0;
  bool ended_ = false;
};

// The filters of the library save uuencode and those that start programs.
void s_offer_binary_filters(archive* handle) {
  archive_read_support_filter_bzip2(handle);
  archive_read_support_filter_compress(handle);
  archive_read_support_filter_gzip(handle);
  archive_read_support_filter_lzip(handle);
  archive_read_support_filter_lzma(handle);
  archive_read_support_filter_xz(handle);
  archive_read_support_filter_rpm(handle);
  archive_read_support_filter_lz4(handle);
  archive_read_support_filter_zstd(handle);
}

// The question which filter the library would choose for some bytes. They are handed out one at a
// time, and no more once the first filter is in place: the library's look at what that filter gives
// (the layer below the next) ends there, before it unpacks anything.
struct filter_question {
  kv_peek_source* source;
  std::size_t given = 0;
  std::optional<int> answer;

  static la_ssize_t feed(archive* handle, void* context, const void** block) {
    auto& self = *static_cast<filter_question*>(context);
    if (archive_filter_count(handle) > 1) {
      self.answer = archive_filter_code(handle, archive_filter_count(handle) - 2);
      archive_set_error(handle, EIO, "Enough was seen");
      return -1;
    }
    const bytes seen = self.source->peek(self.given + 1);
    if (self.given >= seen.size()) {
      return 0;
    }
    *block = &seen[self.given++];
    return 1;
  }
};

std::optional<int> s_binary_filter(kv_peek_source& source) {
  const kv_archive_ptr handle = s_new_raw_reader();
  if (!handle) {
    return std::nullopt;
  }
  s_offer_binary_filters(handle.get());
  filter_question question{&source, 0, std::nullopt};
  static_cast<void>(
      archive_read_open(handle.get(), &question, nullptr, filter_question::feed, nullptr));
  const int count = archive_filter_count(handle.get());
  if (!question.answer && count > 1) {
    question.answer = archive_filter_code(handle.get(), count - 2);
  }
  return question.answer;
}

// Uuencode never gains, so that the library may look through it as far as it likes.
bool s_is_uuencoded(bytes start) {
  const kv_archive_ptr handle = s_new_raw_reader();
  if (!handle) {
    return false;
  }
  archive_read_support_filter_uu(handle.get());
  static_cast<void>(archive_read_open_memory(handle.get(), start.data(), start.size()));
  return archive_filter_count(handle.get()) > 1;
}

std::uint32_t s_little32(bytes value) {
  return static_cast<std::uint32_t>(value[0]) | static_cast<std::uint32_t>(value[1]) << 8 |
         static_cast<std::uint32_t>(value[2]) << 16 | static_cast<std::uint32_t>(value[3]) << 24;
}

// LZMA has no magic number: a properties byte and one of the usual dictionary sizes.
bool s_may_be_lzma(bytes start) {
  constexpr std::uint32_t kLeast = 0x1000;
  constexpr std::uint32_t kMost = 0x04000000;
  const std::uint32_t dictionary = s_little32(start.subspan(1));
  const bool odd_size = dictionary >= 0x03E00000 && dictionary <= 0x03F00000;
  const bool power = (dictionary & (dictionary - 1)) == 0 && dictionary >= kLeast;
  return start[0] < 9 * 5 * 5 && dictionary <= kMost && (odd_size || power);
}

// Necessary conditions of the library's filters, loose on purpose: a match is only looked into.
bool s_may_be_binary_filtered(bytes start) {
  using namespace std::string_view_literals;
  constexpr std::array kMagics{
      "\x1F\x8B"sv,        "BZh"sv, "\x1F\x9D"sv, "LZIP"sv, "\xFD\x37zXZ"sv, "\xED\xAB\xEE\xDB"sv,
      "\x28\xB5\x2F\xFD"sv};
  if (start.size() < 6) {
    return false;
  }
  const std::string_view text{reinterpret_cast<const char*>(start.data()), start.size()};
  const bool has_magic =
      std::ranges::any_of(kMagics, [&](std::string_view magic) { return text.starts_with(magic); });
  // All frames of lz4, and the skippable ones of zstd, end their magic number in this byte.
  return has_magic || start[3] == 0x18 || s_may_be_lzma(start);
}

bool s_is_text(std::uint8_t byte) {
  return (byte >= ' ' && byte < 0x7F) || byte == '\t' || byte == '\n' || byte == '\r';
}

// Lines of text up to one that begins with "begin".
bool s_may_be_text_encoded(bytes start) {
  constexpr std::string_view kBegin = "begin";
  const bytes head = start.first(std::min(start.size(), std::size_t{4}));
  return !start.empty() && std::ranges::all_of(head, s_is_text) &&
         memmem(start.data(), std::min(start.size(), kUuReach), kBegin.data(), kBegin.size()) !=
             nullptr;
}

std::optional<int> s_next_filter(kv_peek_source& source) {
  const bytes start = source.peek(kMagicReach);
  if (s_may_be_binary_filtered(start)) {
    return s_binary_filter(source);
  }
  if (std::ranges::all_of(start.first(std::min(start.size(), std::size_t{4})), s_is_text)) {
    const bytes text = source.peek(kUuReach);
    if (s_may_be_text_encoded(text) && s_is_uuencoded(text)) {
      return ARCHIVE_FILTER_UU;
    }
  }
  return std::nullopt;
}

}  // namespace

bool kv_may_be_filtered(std::span<const std::uint8_t> object) {
  return s_may_be_binary_filtered(object) || s_may_be_text_encoded(object);
}

std::unique_ptr<kv_block_source> kv_gunzip(std::unique_ptr<kv_block_source> packed,
                                           kv_archive_budget& budget) {
  auto layer = std::make_unique<filter_source>(std::move(packed), budget);
  return layer->open(ARCHIVE_FILTER_GZIP) ? std::move(layer) : nullptr;
}

ssize_t kv_peek_source::next(const void** block) {
  if (replayed_ < kept_.size()) {
    const std::size_t piece = std::min(kBlock, kept_.size() - replayed_);
    *block = kept_.data() + replayed_;
    replayed_ += piece;
    return static_cast<ssize_t>(piece);
  }
  if (pending_ > 0) {
    pending_ = upstream_->next(block);
  }
  return pending_;
}

std::span<const std::uint8_t> kv_peek_source::peek(std::size_t wanted) {
  while (kept_.size() < wanted && pending_ > 0) {
    const void* block = nullptr;
    pending_ = upstream_->next(&block);
    if (pending_ > 0) {
      kept_.append(static_cast<const char*>(block), static_cast<std::size_t>(pending_));
    }
  }
  return {reinterpret_cast<const std::uint8_t*>(kept_.data()), kept_.size()};
}

kv_filter_result kv_filter_chain::open(std::span<const std::uint8_t> object,
                                       kv_archive_budget& budget) {
  if (!kv_may_be_filtered(object)) {
    return kv_filter_result::none;
  }
  top_ = std::make_unique<kv_peek_source>(std::make_unique<object_source>(object));
  for (int layers = 0; layers <= kMostLayers; ++layers) {
    const std::optional<int> filter = s_next_filter(*top_);
    if (!filter) {
      return layers == 0 ? kv_filter_result::none : kv_filter_result::filtered;
    }
    auto layer = std::make_unique<filter_source>(std::move(top_), budget);
    if (!layer->open(*filter)) {
      return kv_filter_result::refused;
    }
    top_ = std::make_unique<kv_peek_source>(std::move(layer));
  }
  return kv_filter_result::refused;
}
