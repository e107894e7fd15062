// The header of a 7z archive (7zFormat.txt, public domain, of the LZMA SDK), as far as it says how
// much it describes. The library holds a record for each member, stream, folder and coder before it
// gives the first member, by counts that nothing in the file has to bear out: 63 bytes can claim a
// hundred million of them.

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "common/kv_archive_filters.h"
#include "common/kv_archive_guards.h"

namespace {

using bytes = std::span<const std::uint8_t>;

constexpr std::string_view kSignature{"7z\xBC\xAF\x27\x1C"};
constexpr std::size_t kStartHeader = 32;
// A self-extracting archive has its signature in this reach, behind a program.
constexpr std::size_t kProgramReach = std::size_t{8} << 20;

// What the library holds for one of each, in bytes, rounded up from what was measured.
constexpr std::uint64_t kHeldForFile = 112;
constexpr std::uint64_t kHeldForFolder = 256;
constexpr std::uint64_t kHeldForCoder = 64;
constexpr std::uint64_t kHeldForBinding = 16;
constexpr std::uint64_t kHeldForPackedStream = 24;
constexpr std::uint64_t kHeldForStream = 20;
constexpr std::uint64_t kHeldForSize = 8;
// Streams of one folder: its coders are joined by searching all of them for each.
constexpr std::uint64_t kMostFolderStreams = 64;

enum property : std::uint8_t {
  kEnd = 0x00,
  kHeader = 0x01,
  kArchiveProperties = 0x02,
  kMainStreamsInfo = 0x04,
  kFilesInfo = 0x05,
  kPackInfo = 0x06,
  kUnPackInfo = 0x07,
  kSubStreamsInfo = 0x08,
  kSize = 0x09,
  kCRC = 0x0A,
  kFolder = 0x0B,
  kCodersUnPackSize = 0x0C,
  kNumUnPackStream = 0x0D,
  kEncodedHeader = 0x17,
};

std::uint64_t s_little(bytes value) {
  std::uint64_t number = 0;
  for (std::size_t i = value.size(); i-- > 0;) {
    number = number << 8 | value[i];
  }
  return number;
}

void s_append_little(std::string& out, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) {
    out.push_back(static_cast<char>(value >> (8 * i)));
  }
}

std::uint32_t s_crc32(std::string_view text) {
  return static_cast<std::uint32_t>(
      crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()));
}

std::string_view s_text(bytes value) {
  return {reinterpret_cast<const char*>(value.data()), value.size()};
}

// What the library would hold for all that was read so far, against what it may.
class held_memory {
 public:
  explicit held_memory(std::uint64_t most) : rest_(most) {}
  // False once it is too much.
  [[nodiscard]] bool add(std::uint64_t count, std::uint64_t each) {
    exceeded_ = exceeded_ || count > rest_ / each;
    rest_ -= exceeded_ ? 0 : count * each;
    return !exceeded_;
  }
  void refuse() { exceeded_ = true; }
  [[nodiscard]] bool exceeded() const { return exceeded_; }

 private:
  std::uint64_t rest_;
  bool exceeded_ = false;
};

// The bytes of a header, block by block. Each read is false once they have ended.
class header_cursor {
 public:
  explicit header_cursor(kv_block_source& source) : source_(source) {}

  [[nodiscard]] bool take(std::uint8_t& byte) {
    if (block_.empty() && !refill()) {
      return false;
    }
    byte = block_.front();
    block_ = block_.subspan(1);
    ++position_;
    return true;
  }
  [[nodiscard]] bool skip(std::uint64_t count) {
    while (count > block_.size()) {
      count -= block_.size();
      position_ += block_.size();
      if (!refill()) {
        return false;
      }
    }
    block_ = block_.subspan(count);
    position_ += count;
    return true;
  }
  // The format's own number: as many further bytes as the first has leading ones.
  [[nodiscard]] bool take_number(std::uint64_t& number) {
    std::uint8_t first = 0;
    if (!take(first)) {
      return false;
    }
    const int more = std::countl_one(first);
    number = 0;
    for (int i = 0; i < more; ++i) {
      std::uint8_t byte = 0;
      if (!take(byte)) {
        return false;
      }
      number |= std::uint64_t{byte} << (8 * i);
    }
    number |= more < 7 ? std::uint64_t{first & (0x7FU >> more)} << (8 * more) : 0;
    return true;
  }
  [[nodiscard]] std::size_t position() const { return position_; }

 private:
  bool refill() {
    const void* block = nullptr;
    const ssize_t length = source_.next(&block);
    block_ = length > 0
                 ? bytes{static_cast<const std::uint8_t*>(block), static_cast<std::size_t>(length)}
                 : bytes{};
    return length > 0;
  }

  kv_block_source& source_;
  bytes block_;
  std::size_t position_ = 0;
};

// Gives the bytes in one block.
class span_source final : public kv_block_source {
 public:
  explicit span_source(bytes whole) : rest_(whole) {}
  ssize_t next(const void** block) override {
    const bytes whole = rest_;
    rest_ = {};
    *block = whole.data();
    return static_cast<ssize_t>(whole.size());
  }

 private:
  bytes rest_;
};

// Where a header's parts about streams lie, as far as an encoded header is concerned.
struct streams_layout {
  std::uint64_t pack_position = 0;
  std::uint64_t packed = 0;  // bytes of all packed streams
  std::size_t behind_pack_position = 0;
  std::size_t behind_coders = 0;
  std::uint64_t unpacked = 0;  // largest size that a coder of the first folder gives
};

// Reads a header in the library's own order, counting what it would hold. A read is false where the
// library would stop too: at the end, at what cannot be there, at more than it may hold.
class header_reader {
 public:
  header_reader(kv_block_source& source, held_memory& held) : cursor_(source), held_(held) {}

  // Up to the number of files: nothing behind it asks for more than was counted with them.
  bool read_header() {
    std::uint8_t id = 0;
    if (!cursor_.take(id) || id != kHeader || !cursor_.take(id)) {
      return false;
    }
    if (id == kArchiveProperties) {
      // No archiver writes them, and readers differ on where they end.
      held_.refuse();
      return false;
    }
    if (id == kMainStreamsInfo && !(read_streams() && cursor_.take(id))) {
      return false;
    }
    std::uint64_t files = 0;
    return id == kFilesInfo && cursor_.take_number(files) && held_.add(files, kHeldForFile);
  }

  // Behind the id of an encoded header.
  bool read_encoded() {
    std::uint8_t id = 0;
    return cursor_.take(id) && id == kEncodedHeader && read_streams();
  }
  [[nodiscard]] const streams_layout& layout() const { return layout_; }

 private:
  bool read_streams() {
    std::uint8_t id = 0;
    if (!cursor_.take(id)) {
      return false;
    }
    if (id == kPackInfo && !(read_packed() && cursor_.take(id))) {
      return false;
    }
    if (id == kUnPackInfo && !(read_coders() && cursor_.take(id))) {
      return false;
    }
    if (id == kSubStreamsInfo && !(read_substreams() && cursor_.take(id))) {
      return false;
    }
    return id == kEnd;
  }

  bool read_packed() {
    std::uint64_t count = 0;
    std::uint8_t id = 0;
    if (!cursor_.take_number(layout_.pack_position)) {
      return false;
    }
    layout_.behind_pack_position = cursor_.position();
    if (!cursor_.take_number(count) || !held_.add(count, kHeldForPackedStream) ||
        !cursor_.take(id) || id != kSize) {
      return false;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t size = 0;
      if (!cursor_.take_number(size)) {
        return false;
      }
      layout_.packed += std::min(size, ~layout_.packed);
    }
    return read_digests_to_end(count, nullptr);
  }

  // Nothing or digests, and the end.
  bool read_digests_to_end(std::uint64_t count, std::vector<bool>* defined) {
    std::uint8_t id = 0;
    if (!cursor_.take(id)) {
      return false;
    }
    if (id == kCRC && !(read_digests(count, defined) && cursor_.take(id))) {
      return false;
    }
    return id == kEnd;
  }

  bool read_digests(std::uint64_t count, std::vector<bool>* defined) {
    std::uint8_t all = 0;
    if (!cursor_.take(all)) {
      return false;
    }
    std::uint64_t present = 0;
    std::uint8_t flags = 0xFF;
    for (std::uint64_t i = 0; i < count; ++i) {
      if (all == 0 && i % 8 == 0 && !cursor_.take(flags)) {
        return false;
      }
      const bool is_there = (flags >> (7 - i % 8) & 1) != 0;
      present += is_there ? 1 : 0;
      if (defined != nullptr) {
        defined->push_back(is_there);
      }
    }
    return cursor_.skip(4 * present);
  }

  bool read_coders() {
    std::uint8_t id = 0;
    std::uint8_t is_external = 0;
    if (!cursor_.take(id) || id != kFolder || !cursor_.take_number(folders_) ||
        !held_.add(folders_, kHeldForFolder) || !cursor_.take(is_external)) {
      return false;
    }
    std::uint64_t index = 0;
    if (is_external != 0 && (folders_ != 0 || !cursor_.take_number(index))) {
      return false;
    }
    std::uint64_t first_outputs = 0;
    std::uint64_t outputs = 0;
    for (std::uint64_t i = 0; i < folders_; ++i) {
      std::uint64_t given = 0;
      if (!read_folder(given)) {
        return false;
      }
      first_outputs = i == 0 ? given : first_outputs;
      outputs += given;
    }
    return cursor_.take(id) && id == kCodersUnPackSize && read_sizes(first_outputs, outputs) &&
           read_digests_to_end(folders_, &has_digest_) && mark_coders_end();
  }

  bool mark_coders_end() {
    layout_.behind_coders = cursor_.position();
    return true;
  }

  bool read_sizes(std::uint64_t of_first_folder, std::uint64_t of_all) {
    for (std::uint64_t i = 0; i < of_all; ++i) {
      std::uint64_t size = 0;
      if (!cursor_.take_number(size)) {
        return false;
      }
      layout_.unpacked = i < of_first_folder ? std::max(layout_.unpacked, size) : layout_.unpacked;
    }
    return true;
  }

  bool read_folder(std::uint64_t& outputs) {
    std::uint64_t coders = 0;
    if (!cursor_.take_number(coders) || !held_.add(coders, kHeldForCoder)) {
      return false;
    }
    std::uint64_t inputs = 0;
    for (std::uint64_t i = 0; i < coders; ++i) {
      if (!read_coder(inputs, outputs)) {
        return false;
      }
    }
    if (outputs == 0 || inputs < outputs - 1) {
      return false;
    }
    const std::uint64_t bindings = outputs - 1;
    const std::uint64_t packed = inputs - bindings;
    // One packed stream is not named; it is the one that nothing is bound to.
    return held_.add(bindings, kHeldForBinding) && held_.add(outputs, kHeldForSize) &&
           skip_numbers(2 * bindings + (packed == 1 ? 0 : packed));
  }

  bool read_coder(std::uint64_t& inputs, std::uint64_t& outputs) {
    constexpr std::uint8_t kIdLength = 0x0F;
    constexpr std::uint8_t kHasCounts = 0x10;
    constexpr std::uint8_t kHasProperties = 0x20;
    constexpr std::uint8_t kReserved = 0x80;
    std::uint8_t flags = 0;
    if (!cursor_.take(flags) || (flags & kReserved) != 0 || !cursor_.skip(flags & kIdLength)) {
      return false;
    }
    std::uint64_t in = 1;
    std::uint64_t out = 1;
    if ((flags & kHasCounts) != 0 && !(cursor_.take_number(in) && cursor_.take_number(out))) {
      return false;
    }
    if (in > kMostFolderStreams - inputs || out > kMostFolderStreams - outputs) {
      held_.refuse();
      return false;
    }
    inputs += in;
    outputs += out;
    std::uint64_t properties = 0;
    return (flags & kHasProperties) == 0 || (cursor_.take_number(properties) &&
                                             held_.add(properties, 1) && cursor_.skip(properties));
  }

  bool skip_numbers(std::uint64_t count) {
    std::uint64_t ignored = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      if (!cursor_.take_number(ignored)) {
        return false;
      }
    }
    return true;
  }

  bool read_substreams() {
    std::uint8_t id = 0;
    if (!cursor_.take(id)) {
      return false;
    }
    const bool has_counts = id == kNumUnPackStream;
    std::uint64_t sizes = 0;
    std::uint64_t digests = 0;
    for (std::uint64_t i = 0; i < folders_; ++i) {
      std::uint64_t streams = 1;
      if ((has_counts && !cursor_.take_number(streams)) || !held_.add(streams, kHeldForStream)) {
        return false;
      }
      sizes += streams > 0 ? streams - 1 : 0;
      digests += streams == 1 && i < has_digest_.size() && has_digest_[i] ? 0 : streams;
    }
    if (has_counts && !cursor_.take(id)) {
      return false;
    }
    if (id == kSize && !(skip_numbers(sizes) && cursor_.take(id))) {
      return false;
    }
    if (id == kCRC && !(read_digests(digests, nullptr) && cursor_.take(id))) {
      return false;
    }
    return id == kEnd;
  }

  header_cursor cursor_;
  held_memory& held_;
  streams_layout layout_;
  std::uint64_t folders_ = 0;
  std::vector<bool> has_digest_;
};

// An archive of one member, whose content is what an encoded header decodes to: the same packed
// bytes and coders, so that the library's own decoders read it, block by block.
std::string s_header_as_member(bytes packed, bytes encoded, const streams_layout& layout) {
  std::string header{static_cast<char>(kHeader), static_cast<char>(kMainStreamsInfo),
                     static_cast<char>(kPackInfo), '\0'};
  header += s_text(encoded.subspan(layout.behind_pack_position,
                                   layout.behind_coders - layout.behind_pack_position));
  header += {static_cast<char>(kSubStreamsInfo), '\0', '\0'};
  header += {static_cast<char>(kFilesInfo), 1, 0x11, 5, '\0', 'h', '\0', '\0', '\0', '\0', '\0'};
  std::string start;
  s_append_little(start, packed.size(), 8);
  s_append_little(start, header.size(), 8);
  s_append_little(start, s_crc32(header), 4);
  std::string archive{kSignature};
  archive += {'\0', 4};
  s_append_little(archive, s_crc32(start), 4);
  archive += start;
  archive += s_text(packed);
  return archive + header;
}

// The decoded header, from the archive above.
class member_source final : public kv_block_source {
 public:
  member_source(std::string archive, std::uint64_t most, kv_archive_budget& budget)
      : archive_(std::move(archive)), most_(most), budget_(budget), handle_(archive_read_new()) {}
  [[nodiscard]] bool open() {
    archive_entry* entry = nullptr;
    return handle_ && archive_read_support_format_7zip(handle_.get()) == ARCHIVE_OK &&
           archive_read_open_memory(handle_.get(), archive_.data(), archive_.size()) ==
               ARCHIVE_OK &&
           archive_read_next_header(handle_.get(), &entry) >= ARCHIVE_WARN;
  }
  ssize_t next(const void** block) override {
    std::size_t length = 0;
    la_int64_t offset = 0;
    if (given_ > most_ ||
        archive_read_data_block(handle_.get(), block, &length, &offset) != ARCHIVE_OK) {
      return 0;
    }
    given_ += length;
    return budget_.allows(given_) ? static_cast<ssize_t>(length) : -1;
  }

 private:
  std::string archive_;
  std::uint64_t most_;
  kv_archive_budget& budget_;
  kv_archive_ptr handle_;
  std::uint64_t given_ = 0;
};

// A header that says how the true one is packed.
void s_read_encoded(bytes body, bytes encoded, held_memory& held, kv_archive_budget& budget) {
  span_source source{encoded};
  header_reader reader{source, held};
  if (!reader.read_encoded()) {
    return;
  }
  const streams_layout& layout = reader.layout();
  // Held twice at most: as names, and in the decoder's window.
  if (layout.behind_coders == 0 || !held.add(layout.unpacked, 2) ||
      layout.pack_position > body.size()) {
    return;
  }
  const bytes packed = body.subspan(layout.pack_position);
  member_source decoded{
      s_header_as_member(packed.first(std::min<std::uint64_t>(layout.packed, packed.size())),
                         encoded, layout),
      layout.unpacked, budget};
  if (decoded.open()) {
    static_cast<void>(header_reader{decoded, held}.read_header());
  }
}

// Reads the archive that a signature begins, as far as it is there.
void s_read_archive(bytes archive, bool is_whole, held_memory& held, kv_archive_budget& budget) {
  if (archive.size() < kStartHeader) {
    return;
  }
  const bytes rest = archive.subspan(kStartHeader);
  const std::uint64_t offset = s_little(archive.subspan(12, 8));
  const std::uint64_t length = s_little(archive.subspan(20, 8));
  if (offset >= rest.size() || length == 0) {
    return;
  }
  const bytes header =
      rest.subspan(offset).first(std::min<std::uint64_t>(length, rest.size() - offset));
  if (header.size() < length && !is_whole) {
    held.refuse();
    return;
  }
  if (!held.add(header.size(), 1)) {
    return;
  }
  if (header.front() == kEncodedHeader) {
    s_read_encoded(rest.first(offset), header, held, budget);
  } else {
    span_source source{header};
    static_cast<void>(header_reader{source, held}.read_header());
  }
}

}  // namespace

bool kv_is_7z_candidate(const kv_archive_start& start) {
  return start.starts_with(kSignature) || start.starts_with("MZ") ||
         start.starts_with(
             "\x7F"
             "ELF");
}

bool kv_7z_header_fits(const kv_archive_start& start, kv_archive_budget& budget) {
  held_memory held{budget.allowance()};
  const std::string_view text = s_text(start.bytes);
  // Only an archive behind a program has to be searched for. All that are there count together, so
  // that many of them cost no more than one.
  const bool is_program = !text.starts_with(kSignature);
  std::string_view rest =
      is_program ? text.substr(0, kProgramReach) : text.substr(0, kSignature.size());
  while (!held.exceeded()) {
    const void* found = memmem(rest.data(), rest.size(), kSignature.data(), kSignature.size());
    if (found == nullptr) {
      break;
    }
    rest.remove_prefix(static_cast<std::size_t>(static_cast<const char*>(found) - rest.data()));
    s_read_archive(start.bytes.subspan(static_cast<std::size_t>(rest.data() - text.data())),
                   start.is_whole, held, budget);
    rest.remove_prefix(1);
  }
  if (held.exceeded()) {
    budget.exhaust();
  }
  return budget.cut() == kv_archive_cut::none;
}
