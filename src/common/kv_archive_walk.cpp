#include "common/kv_archive_walk.h"

#include <locale.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "common/kv_archive_guards.h"

namespace {

// Beyond this an mtree list is not looked for: reading one is worse than linear in the library.
constexpr std::size_t kMostTreeList = std::size_t{64} << 10;
// As much of an unpacked object is kept to look at an archive's table of contents.
constexpr std::size_t kContentsReach = std::size_t{4} << 20;
constexpr std::size_t kBlock = std::size_t{256} << 10;
constexpr std::int64_t kMostMember = std::numeric_limits<std::int32_t>::max();
// Headers in a row that the library asks to pass over, before the walk gives up.
constexpr int kMostRetries = 1000;

// The calling thread's locale while the library works on names: in the "C" locale it gives none at
// all for a name outside ASCII, which would hide that member.
class utf8_scope {
 public:
  utf8_scope() : before_(uselocale(s_utf8())) {}
  utf8_scope(const utf8_scope&) = delete;
  utf8_scope& operator=(const utf8_scope&) = delete;
  ~utf8_scope() { uselocale(before_); }

 private:
  // Made once and kept for the life of the process. When it cannot be made the locale stays.
  static locale_t s_utf8() {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
    return utf8;
  }
  locale_t before_;
};

// In the library's own order, which decides between equal bids. mtree is offered apart.
void s_offer_formats(archive* handle) {
  archive_read_support_format_ar(handle);
  archive_read_support_format_cpio(handle);
  archive_read_support_format_empty(handle);
  archive_read_support_format_lha(handle);
  archive_read_support_format_tar(handle);
  archive_read_support_format_xar(handle);
  archive_read_support_format_warc(handle);
  archive_read_support_format_7zip(handle);
  archive_read_support_format_cab(handle);
  archive_read_support_format_rar(handle);
  archive_read_support_format_rar5(handle);
  archive_read_support_format_iso9660(handle);
  archive_read_support_format_zip(handle);
}

std::size_t s_little16(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return bytes[offset] | static_cast<std::size_t>(bytes[offset + 1]) << 8;
}

// A local header of a zip archive, as far as its name is concerned.
struct local_header {
  static constexpr std::size_t kFixed = 30;
  std::size_t name_length;
  std::size_t end;  // where the member's data begins
};

std::optional<local_header> s_local_header(std::span<const std::uint8_t> object,
                                           std::size_t offset) {
  constexpr std::uint8_t kSignature[] = {'P', 'K', 3, 4};
  if (offset > object.size() || object.size() - offset < local_header::kFixed ||
      std::memcmp(&object[offset], kSignature, sizeof kSignature) != 0) {
    return std::nullopt;
  }
  const std::size_t name = s_little16(object, offset + 26);
  const std::size_t extra = s_little16(object, offset + 28);
  return local_header{name, offset + local_header::kFixed + name + extra};
}

}  // namespace

char* kv_member_bytes::room(std::size_t count) {
  const std::size_t needed = size_ + count + 1;
  if (needed > capacity_) {
    const std::size_t wanted = std::max(needed, capacity_ * 2);
    char* grown = static_cast<char*>(std::realloc(data_.get(), wanted));
    if (grown == nullptr) {
      return nullptr;
    }
    static_cast<void>(data_.release());
    data_.reset(grown);
    capacity_ = wanted;
  }
  data_.get()[size_] = '\0';
  return data_.get() + size_;
}

void kv_member_bytes::added(std::size_t count) {
  size_ += count;
  data_.get()[size_] = '\0';
}

kv_archive_walk::kv_archive_walk(std::span<const std::uint8_t> object, kv_time_source time)
    : object_(object), budget_(object.size(), time) {}

int kv_archive_walk::error_code() const {
  return handle_ ? archive_errno(handle_.get()) : 0;
}

const char* kv_archive_walk::error_text() const {
  const char* text = handle_ ? archive_error_string(handle_.get()) : nullptr;
  return text != nullptr ? text : "";
}

bool kv_archive_walk::open() {
  const utf8_scope names;
  switch (filters_.open(object_, budget_)) {
    case kv_filter_result::none:
      return kv_archive_contents_fit({object_, true}, budget_) &&
             (open_plain() || open_tree_list());
    case kv_filter_result::filtered:
      return filtered_contents_fit() && open_filtered();
    default:
      return false;
  }
}

bool kv_archive_walk::filtered_contents_fit() {
  if (!kv_archive_needs_guard({filters_.source().peek(kGuardMagic), false})) {
    return true;
  }
  const auto start = filters_.source().peek(kContentsReach);
  return kv_archive_contents_fit({start, start.size() < kContentsReach}, budget_);
}

bool kv_archive_walk::open_plain() {
  handle_.reset(archive_read_new());
  if (!handle_) {
    return false;
  }
  s_offer_formats(handle_.get());
  if (kv_archive_input::suits(object_)) {
    return input_.open(handle_.get(), object_);
  }
  return archive_read_open_memory(handle_.get(), object_.data(), object_.size()) == ARCHIVE_OK;
}

bool kv_archive_walk::open_filtered() {
  filtered_ = true;
  handle_.reset(archive_read_new());
  if (!handle_) {
    return false;
  }
  s_offer_formats(handle_.get());
  return input_.open(handle_.get(), filters_.source());
}

// An mtree list describes files by name. Everything else has been refused by now, so that a line of
// text before an archive hides nothing.
bool kv_archive_walk::open_tree_list() {
  if (object_.size() > kMostTreeList) {
    return false;
  }
  kv_archive_ptr list{archive_read_new()};
  if (!list) {
    return false;
  }
  archive_read_support_format_mtree(list.get());
  if (archive_read_open_memory(list.get(), object_.data(), object_.size()) != ARCHIVE_OK) {
    return false;  // the first refusal's text stays
  }
  handle_ = std::move(list);
  return true;
}

int kv_archive_walk::read_header() {
  input_.begin_header();
  const int result = archive_read_next_header(handle_.get(), &entry_);
  input_.end_header();
  return result;
}

// The library keeps each member of a cpio archive that has further links, and goes through all of
// them at each such member.
void kv_archive_walk::count_links() {
  const int format = archive_format(handle_.get()) & ARCHIVE_FORMAT_BASE_MASK;
  if (format != ARCHIVE_FORMAT_CPIO || archive_entry_nlink(entry_) < 2) {
    return;
  }
  linked_ += 1;
  if (linked_ * linked_ / 2 > budget_.allowance()) {
    budget_.exhaust();
  }
}

bool kv_archive_walk::next() {
  const utf8_scope names;
  for (int retries = 0; retries < kMostRetries; ++retries) {
    if (!leave_member()) {
      return false;
    }
    const int result = read_header();
    if (!budget_.allows(members_given_)) {
      return false;
    }
    if (result == ARCHIVE_RETRY) {
      continue;
    }
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
      return false;
    }
    in_member_ = true;
    member_was_read_ = false;
    count_links();
    if (const char* path = archive_entry_pathname(entry_); path != nullptr) {
      name_ = path;
    } else {
      name_ = raw_zip_name();
    }
    return cut() == kv_archive_cut::none;
  }
  return false;
}

// The names of the local headers in a stretch of a zip archive that end where a member's data
// begins. Should several claim to, all of their names count: none hides another.
std::string kv_archive_walk::zip_names_between(std::size_t first, std::size_t data) {
  constexpr std::string_view kSignature{"PK\x03\x04"};
  const std::string_view text{reinterpret_cast<const char*>(object_.data()), data};
  std::string names;
  headers_sought_ += data - first;
  for (std::size_t offset = text.find(kSignature, first); offset != std::string_view::npos;
       offset = text.find(kSignature, offset + 1)) {
    const auto header = s_local_header(object_, offset);
    if (header && header->end == data) {
      names.append(names.empty() ? "" : "\n");
      names.append(text.substr(offset + local_header::kFixed, header->name_length));
    }
  }
  return names;
}

// The bytes that a zip archive itself gives for a name that no text could be made of. The member's
// data begins where the library stands now, so its local header ends there; it mostly begins where
// the library stood before.
std::string kv_archive_walk::raw_zip_name() {
  constexpr std::size_t kLongest = local_header::kFixed + std::size_t{2} * 0xFFFF;
  const int format = archive_format(handle_.get()) & ARCHIVE_FORMAT_BASE_MASK;
  const auto data = static_cast<std::size_t>(archive_filter_bytes(handle_.get(), 0));
  const auto before = static_cast<std::size_t>(archive_read_header_position(handle_.get()));
  if (filtered_ || format != ARCHIVE_FORMAT_ZIP || data > object_.size()) {
    return {};
  }
  std::string names = before < data ? zip_names_between(before, data) : std::string{};
  if (names.empty()) {
    names = zip_names_between(data > kLongest ? data - kLongest : 0, data);
  }
  // Headers laid over each other could make this search as long as the object at each member.
  if (headers_sought_ / 4 > object_.size() + kv_archive_budget::kAlwaysAllowed) {
    budget_.exhaust();
  }
  return names;
}

std::optional<std::int64_t> kv_archive_walk::declared_size() const {
  if (archive_entry_size_is_set(entry_) == 0) {
    return std::nullopt;
  }
  return archive_entry_size(entry_);
}

// True where passing over a member makes the library unpack it, which nothing could interrupt.
bool kv_archive_walk::skip_unpacks() const {
  if (filtered_) {
    return true;
  }
  switch (archive_format(handle_.get()) & ARCHIVE_FORMAT_BASE_MASK) {
    case ARCHIVE_FORMAT_ZIP:
      return !declared_size().has_value();
    case ARCHIVE_FORMAT_7ZIP:
    case ARCHIVE_FORMAT_CAB:
    case ARCHIVE_FORMAT_RAR_V5:
      return true;
    default:
      return false;
  }
}

// Reads the rest of a member and throws it away. False when the budget is spent.
bool kv_archive_walk::drain() {
  const auto declared = declared_size();
  if (declared && *declared <= 0) {
    return true;
  }
  for (;;) {
    const void* block = nullptr;
    std::size_t length = 0;
    la_int64_t offset = 0;
    const int result = archive_read_data_block(handle_.get(), &block, &length, &offset);
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
      return budget_.cut() == kv_archive_cut::none;
    }
    members_given_ += length;
    if (!budget_.allows(members_given_)) {
      return false;
    }
    const bool at_end = declared && offset >= *declared - static_cast<la_int64_t>(length);
    if (at_end || (length == 0 && result == ARCHIVE_WARN)) {
      return true;
    }
  }
}

// False when what follows cannot be reached.
bool kv_archive_walk::leave_member() {
  if (!in_member_) {
    return true;
  }
  in_member_ = false;
  if (!member_was_read_ && skip_unpacks() && !drain()) {
    return false;
  }
  const int result = archive_read_data_skip(handle_.get());
  return budget_.allows(members_given_) &&
         (result >= ARCHIVE_WARN || result == ARCHIVE_RETRY || result == ARCHIVE_EOF);
}

kv_member_read kv_archive_walk::read(kv_member_bytes& content) {
  const utf8_scope names;
  content.clear();
  member_was_read_ = true;
  const std::optional<std::int64_t> declared = declared_size();
  if (declared && (*declared < 0 || *declared > kMostMember)) {
    return kv_member_read::unallocated;
  }
  const auto most = static_cast<std::size_t>(declared.value_or(kMostMember + std::int64_t{1}));
  while (content.text().size() < most) {
    const std::size_t wanted = std::min(kBlock, most - content.text().size());
    char* room = content.room(wanted);
    if (room == nullptr) {
      return kv_member_read::unallocated;
    }
    const la_ssize_t got = archive_read_data(handle_.get(), room, wanted);
    if (got < 0) {
      return budget_.cut() == kv_archive_cut::none ? kv_member_read::failed : kv_member_read::cut;
    }
    content.added(static_cast<std::size_t>(got));
    members_given_ += static_cast<std::size_t>(got);
    if (!budget_.allows(members_given_)) {
      return kv_member_read::cut;
    }
    if (static_cast<std::size_t>(got) < wanted) {
      break;
    }
  }
  return content.text().size() > static_cast<std::size_t>(kMostMember) ? kv_member_read::unallocated
                                                                       : kv_member_read::done;
}
