#include "support/cfb_reference.h"

#include <functional>
#include <map>
#include <set>

namespace {

std::uint64_t s_number(const std::string& bytes, std::size_t offset, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i-- > 0;) {
    value = value * 256 + static_cast<std::uint8_t>(bytes.at(offset + i));
  }
  return value;
}

}  // namespace

cfb_reference::cfb_reference(std::string_view bytes) : bytes_(bytes) {
  load();
}

std::string cfb_reference::block(std::uint64_t number) const {
  const std::uint64_t start = (number + 1) * block_size_;
  return start < bytes_.size() ? bytes_.substr(start, block_size_) : std::string{};
}

std::vector<std::uint32_t> cfb_reference::table_numbers() const {
  const std::uint64_t count = s_number(bytes_, 44, 4);
  const std::uint64_t metas = s_number(bytes_, 72, 4);
  std::vector<std::uint32_t> numbers;
  for (std::size_t i = 0; i < 109 && i < count; ++i) {
    numbers.push_back(static_cast<std::uint32_t>(s_number(bytes_, 76 + 4 * i, 4)));
  }
  std::set<std::uint64_t> seen;
  std::uint64_t meta = s_number(bytes_, 68, 4);
  while (numbers.size() < count && seen.size() < metas && !block(meta).empty() &&
         meta < 0xFFFFFFFA && seen.insert(meta).second) {
    const std::string data = block(meta);
    for (std::size_t i = 0; i + 4 <= data.size() && i + 4 < block_size_; i += 4) {
      if (numbers.size() < count) {
        numbers.push_back(static_cast<std::uint32_t>(s_number(data, i, 4)));
      }
    }
    if (data.size() < block_size_) {
      break;
    }
    meta = s_number(data, block_size_ - 4, 4);
  }
  return numbers;
}

void cfb_reference::load() {
  if (bytes_.size() < 512 || bytes_.substr(0, 8) != "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1") {
    return;
  }
  const std::uint64_t b_shift = s_number(bytes_, 30, 2);
  const std::uint64_t num_bat = s_number(bytes_, 44, 4);
  const std::uint64_t num_mbat = s_number(bytes_, 72, 4);
  const bool bad_counts = num_bat == 0 || (num_bat > 109 && num_bat > num_mbat * 127 + 109) ||
                          (num_bat < 109 && num_mbat != 0);
  if (bad_counts || s_number(bytes_, 56, 4) != 4096 || b_shift < 7 || b_shift > 30 ||
      s_number(bytes_, 32, 2) > b_shift) {
    return;
  }
  block_size_ = std::uint64_t{1} << b_shift;
  const std::vector<std::uint32_t> numbers = table_numbers();
  const std::uint64_t table_size =
      std::min<std::uint64_t>(numbers.size() * (block_size_ / 4), 0xFFFFFFFA);
  std::map<std::uint64_t, std::uint32_t> table;  // words that are there; others are free
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const std::string data = block(numbers[i]);
    for (std::size_t j = 0; j + 4 <= data.size(); j += 4) {
      table[i * (block_size_ / 4) + j / 4] = static_cast<std::uint32_t>(s_number(data, j, 4));
    }
  }
  std::string directory;
  std::set<std::uint64_t> seen;
  for (std::uint64_t at = s_number(bytes_, 48, 4); at < table_size && seen.insert(at).second;
       at = table.contains(at) ? table[at] : 0xFFFFFFFF) {
    directory += block(at);
  }
  for (std::size_t i = 0; i + 128 <= directory.size(); i += 128) {
    const std::string raw = directory.substr(i, 128);
    std::string name;
    for (std::size_t c = 0; c < s_number(raw, 64, 2) / 2 && c < 32 && raw[2 * c] != '\0'; ++c) {
      name += raw[2 * c];
    }
    if (!name.empty() && static_cast<std::uint8_t>(name[0]) < 32) {
      name.erase(0, 1);
    }
    entries_.push_back({name, raw[66] != 2, static_cast<std::uint32_t>(s_number(raw, 68, 4)),
                        static_cast<std::uint32_t>(s_number(raw, 72, 4)),
                        static_cast<std::uint32_t>(s_number(raw, 76, 4))});
  }
}

std::vector<std::uint32_t> cfb_reference::children(std::uint32_t entry) const {
  std::vector<std::uint32_t> list;
  std::set<std::uint32_t> seen;
  const std::function<void(std::uint32_t)> visit = [&](std::uint32_t index) {
    if (index >= entries_.size() || !seen.insert(index).second) {
      return;
    }
    visit(entries_[index].prev);
    list.push_back(index);
    visit(entries_[index].next);
  };
  visit(entries_.at(entry).child);
  return list;
}

std::optional<std::uint32_t> cfb_reference::find(const std::string& path) const {
  std::uint32_t at = 0;
  std::string part;
  for (const char c : path + "/") {
    if (c != '/') {
      part += c;
      continue;
    }
    if (part.empty()) {
      continue;
    }
    bool found = false;
    for (const std::uint32_t child : children(at)) {
      if (entries_[child].name == part) {
        at = child;
        found = true;
        break;
      }
    }
    if (!found) {
      return std::nullopt;
    }
    part.clear();
  }
  return at;
}

std::vector<std::string> cfb_reference::names(const std::string& path) const {
  std::vector<std::string> found;
  const auto storage = find(path);
  if (is_loaded() && storage && (*storage == 0 || entries_[*storage].storage)) {
    for (const std::uint32_t child : children(*storage)) {
      found.push_back(entries_[child].name);
    }
  }
  return found;
}

bool cfb_reference::has_token(std::string_view token) const {
  if (!is_loaded()) {
    return false;
  }
  std::set<std::uint32_t> entered{0};
  const std::function<bool(const std::string&)> search = [&](const std::string& path) {
    for (const std::string& name : names(path)) {
      if (name.find(token) != std::string::npos) {
        return true;
      }
      if (name.empty() || name.find('/') != std::string::npos) {
        continue;
      }
      const auto entry = find(path + name);
      if (entry && entries_[*entry].storage && entered.insert(*entry).second &&
          search(path + name + "/")) {
        return true;
      }
    }
    return false;
  };
  return search("/");
}
