#pragma once
// The plainest possible reader of compound files, against which the real one is held: it copies and
// decodes everything it meets, remembers what it saw in sets, and finds names by walking paths.
// Slow, recursive, for small inputs only.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class cfb_reference {
 public:
  explicit cfb_reference(std::string_view bytes);
  [[nodiscard]] bool is_loaded() const { return !entries_.empty(); }
  [[nodiscard]] std::size_t entry_count() const { return entries_.size(); }
  // The names of the children of the storage at a path.
  [[nodiscard]] std::vector<std::string> names(const std::string& path) const;
  // True when a name at or below the root holds the token.
  [[nodiscard]] bool has_token(std::string_view token) const;

 private:
  struct entry_t {
    std::string name;
    bool storage;
    std::uint32_t prev, next, child;
  };
  [[nodiscard]] std::string block(std::uint64_t number) const;
  [[nodiscard]] std::vector<std::uint32_t> table_numbers() const;
  void load();
  [[nodiscard]] std::vector<std::uint32_t> children(std::uint32_t entry) const;
  [[nodiscard]] std::optional<std::uint32_t> find(const std::string& path) const;

  std::string bytes_;
  std::uint64_t block_size_ = 0;
  std::vector<entry_t> entries_;
};
