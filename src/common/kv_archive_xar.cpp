// The table of contents of a xar archive: XML, compressed with zlib, that the library reads whole.

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "common/kv_archive_filters.h"
#include "common/kv_archive_guards.h"

namespace {

using bytes = std::span<const std::uint8_t>;

constexpr std::size_t kHeader = 28;
constexpr std::size_t kZlibHeader = 2;
// What the library keeps of a table is up to ten times its length.
constexpr std::uint64_t kHeldPerByte = 10;

std::uint64_t s_big64(bytes value) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : value.first(8)) {
    number = number << 8 | byte;
  }
  return number;
}

// The compressed table as a gzip file: both hold a deflate stream, behind headers of their own and
// in front of checksums of their own, which the library does not compare.
class contents_source final : public kv_block_source {
 public:
  explicit contents_source(bytes deflated) : pieces_{bytes{kStart}, deflated, bytes{kEnd}} {}
  ssize_t next(const void** block) override {
    while (next_ < pieces_.size()) {
      const bytes piece = pieces_[next_++];
      if (!piece.empty()) {
        *block = piece.data();
        return static_cast<ssize_t>(piece.size());
      }
    }
    return 0;
  }

 private:
  static constexpr std::array<std::uint8_t, 10> kStart{0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 3};
  static constexpr std::array<std::uint8_t, 8> kEnd{};
  std::array<bytes, 3> pieces_;
  std::size_t next_ = 0;
};

// UTF-16, UTF-32 and EBCDIC show in the first two bytes, as XML 1.0 appendix F has it.
bool s_begins_wide(std::string_view text) {
  using namespace std::string_view_literals;
  constexpr std::array kWide{"<\0"sv, "\0<"sv, "\0\0"sv, "\xFE\xFF"sv, "\xFF\xFE"sv, "\x4C\x6F"sv};
  return std::ranges::find(kWide, text.substr(0, 2)) != kWide.end();
}

// True when an XML declaration at the beginning ends there and names no encoding but UTF-8.
bool s_declares_utf8(std::string_view prologue) {
  const std::size_t start = prologue.find("<?xml");
  if (start == std::string_view::npos) {
    return true;
  }
  const std::size_t end = prologue.find("?>", start);
  if (end == std::string_view::npos) {
    return false;
  }
  std::string_view rest = prologue.substr(start, end - start);
  const std::size_t encoding = rest.find("encoding");
  if (encoding == std::string_view::npos) {
    return true;
  }
  rest.remove_prefix(encoding);
  if (rest.find("encoding", 1) != std::string_view::npos) {
    return false;
  }
  rest.remove_prefix(std::min(rest.find_first_of("\"'"), rest.size()));
  const std::string_view name = rest.substr(0, 7);
  return name == "\"UTF-8\"" || name == "\"utf-8\"" || name == "'UTF-8'" || name == "'utf-8'";
}

// Counts what makes reading a table worse than linear: attributes of one tag and extended
// attributes of one file are searched in full for each further one. What could hide them from this
// count (a document type with entities and default attributes, an encoding other than UTF-8) is in
// no table that an archiver writes.
class xml_cost {
 public:
  explicit xml_cost(std::uint64_t most_steps) : most_steps_(most_steps) {}
  // False once the text so far costs too much.
  [[nodiscard]] bool add(std::string_view text) {
    if (prologue_.size() < kPrologue) {
      prologue_ += text.substr(0, kPrologue - prologue_.size());
      if (s_begins_wide(prologue_) ||
          (prologue_.size() == kPrologue && !s_declares_utf8(prologue_))) {
        return false;
      }
    }
    while (!text.empty()) {
      if (!(in_tag_start_ ? add_tag_start(text) : add_rest_of_tag(text))) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::ptrdiff_t kMostAttributes = 128;
  static constexpr std::size_t kPrologue = 128;
  static constexpr std::size_t kTagStart = 8;

  // One character behind "<".
  bool add_tag_start(std::string_view& text) {
    if (text.front() == '<') {
      begin_tag();
    } else {
      tag_.push_back(text.front());
      in_tag_start_ = tag_.size() < kTagStart;
    }
    text.remove_prefix(1);
    return tag_fits();
  }

  // Up to the next "<", which no attribute's value may hold.
  bool add_rest_of_tag(std::string_view& text) {
    const std::size_t end = std::min(text.find('<'), text.size());
    equal_signs_ += std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), '=');
    const bool fits = equal_signs_ <= kMostAttributes;
    if (end < text.size()) {
      begin_tag();
    }
    text.remove_prefix(std::min(end + 1, text.size()));
    return fits;
  }

  void begin_tag() {
    in_tag_start_ = true;
    tag_.clear();
    equal_signs_ = 0;
  }

  [[nodiscard]] bool tag_fits() {
    equal_signs_ += tag_.ends_with('=') ? 1 : 0;
    extended_ += tag_ == "ea" ? 1 : 0;
    return tag_ != "!DOCTYPE" && extended_ * extended_ <= most_steps_;
  }

  std::uint64_t most_steps_;
  std::uint64_t extended_ = 0;
  std::ptrdiff_t equal_signs_ = 0;
  std::string prologue_;
  std::string tag_;
  bool in_tag_start_ = false;
};

// Unpacks the table and throws it away.
bool s_table_fits(bytes deflated, kv_archive_budget& budget) {
  const auto table = kv_gunzip(std::make_unique<contents_source>(deflated), budget);
  if (!table) {
    return true;
  }
  xml_cost cost{budget.allowance()};
  std::uint64_t unpacked = 0;
  const void* block = nullptr;
  for (ssize_t got = 0; (got = table->next(&block)) > 0;) {
    unpacked += static_cast<std::uint64_t>(got);
    if (unpacked > budget.allowance() / kHeldPerByte ||
        !cost.add({static_cast<const char*>(block), static_cast<std::size_t>(got)})) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool kv_is_xar(const kv_archive_start& start) {
  return start.starts_with("xar!");
}

bool kv_xar_contents_fit(const kv_archive_start& start, kv_archive_budget& budget) {
  if (start.bytes.size() < kHeader) {
    return true;
  }
  const std::size_t contents =
      (static_cast<std::size_t>(start.bytes[4]) << 8 | start.bytes[5]) + kZlibHeader;
  const std::uint64_t packed = s_big64(start.bytes.subspan(8));
  if (contents >= start.bytes.size() || packed <= kZlibHeader) {
    return true;
  }
  const bytes rest = start.bytes.subspan(contents);
  const bool is_seen = start.is_whole || packed <= rest.size();
  if (!is_seen ||
      !s_table_fits(rest.first(std::min<std::uint64_t>(rest.size(), packed - kZlibHeader)),
                    budget)) {
    budget.exhaust();
  }
  return budget.cut() == kv_archive_cut::none;
}
