// Search for tokens in the names of a compound file's entries.
#include <algorithm>

#include "activecontent/pole_internal.h"

namespace POLE {

namespace {

// Up to here, names are compared one by one instead of being sorted.
constexpr std::size_t kFewEntries = 48;
// Steps of the walk for each entry of the directory before lists that overlap are no longer told
// apart: honest files take one.
constexpr std::uint64_t kStepsPerEntry = 32;
constexpr std::uint64_t kStepsAlways = 65536;

// Walks the storages as their paths name them: an entry is entered when it is the first of its name
// among its siblings, and only once. Lists of siblings may hang together in any way, so that each
// list is looked at once, and where a hostile directory makes its lists overlap without end every
// storage is entered, by whatever name: the walk then sees more, never less.
class NameSearch {
 public:
  NameSearch(const DirTree& tree, std::span<const std::string_view> tokens)
      : tree_(tree),
        tokens_(tokens),
        siblings_(tree),
        entered_(tree.count(), false),
        listed_from_(tree.count(), false),
        listed_(tree.count(), false),
        steps_left_(std::uint64_t{tree.count()} * kStepsPerEntry + kStepsAlways) {}

  unsigned run(std::uint32_t storage) {
    enter(storage);
    while (!open_.empty() && !done()) {
      const std::uint32_t next = open_.back();
      open_.pop_back();
      list(tree_.child(next));
    }
    return found_;
  }

 private:
  // The first token decides whatever else there is.
  [[nodiscard]] bool done() const { return (found_ & 1U) != 0; }
  [[nodiscard]] bool lists_overlap() const { return steps_left_ == 0; }

  void enter(std::uint32_t storage) {
    if (!entered_[storage]) {
      entered_[storage] = true;
      open_.push_back(storage);
    }
  }

  void list(std::uint32_t start) {
    if (start >= tree_.count() || listed_from_[start]) {
      return;
    }
    listed_from_[start] = true;
    list_.clear();
    storages_.clear();
    if (lists_overlap()) {
      list_loosely(start);
      return;
    }
    siblings_.dirtree_find_siblings(start, [&](std::uint32_t entry) { return note(entry); });
    if (!done()) {
      lists_overlap() ? give_up_names(start) : enter_first_of_their_names();
    }
  }

  // False to end the list.
  bool note(std::uint32_t entry) {
    --steps_left_;
    list_.push_back(entry);
    const EntryName name = tree_.name(entry);
    if (!listed_[entry]) {
      listed_[entry] = true;
      test(name.view());
    }
    if (tree_.is_storage(entry) && !entered_[entry] && !name.view().empty() &&
        name.view().find('/') == std::string_view::npos) {
      storages_.push_back(list_.size() - 1);
    }
    return !done() && !lists_overlap();
  }

  void test(std::string_view name) {
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      if (name.find(tokens_[i]) != std::string_view::npos) {
        found_ |= 1U << i;
      }
    }
  }

  void enter_first_of_their_names() {
    if (storages_.empty()) {
      return;
    }
    if (list_.size() > kFewEntries) {
      sort_names();
    }
    for (const std::size_t place : storages_) {
      if (list_.size() > kFewEntries ? is_first_sorted(place) : is_first(place)) {
        enter(list_[place]);
      } else {
        passed_over_.push_back(list_[place]);
      }
    }
  }

  [[nodiscard]] bool is_first(std::size_t place) const {
    const EntryName name = tree_.name(list_[place]);
    return std::none_of(
        list_.begin(), list_.begin() + static_cast<std::ptrdiff_t>(place),
        [&](std::uint32_t earlier) { return tree_.name(earlier).view() == name.view(); });
  }

  struct named_place {
    EntryName name;
    std::size_t place;
  };
  static bool s_before(const named_place& a, const named_place& b) {
    const int order = a.name.view().compare(b.name.view());
    return order != 0 ? order < 0 : a.place < b.place;
  }

  void sort_names() {
    sorted_.clear();
    for (std::size_t place = 0; place < list_.size(); ++place) {
      sorted_.push_back({tree_.name(list_[place]), place});
    }
    std::sort(sorted_.begin(), sorted_.end(), s_before);
  }

  [[nodiscard]] bool is_first_sorted(std::size_t place) const {
    const named_place first_possible{tree_.name(list_[place]), 0};
    const auto first = std::lower_bound(sorted_.begin(), sorted_.end(), first_possible, s_before);
    return first->place == place;
  }

  // From here on names no longer matter: what was passed over is entered after all.
  void give_up_names(std::uint32_t start) {
    for (const std::size_t place : storages_) {
      enter(list_[place]);
    }
    for (const std::uint32_t storage : passed_over_) {
      enter(storage);
    }
    // The list was left in the middle: the rest is reached from its start and its entries.
    list_loosely(start);
    for (const std::uint32_t entry : list_) {
      list_loosely(tree_.next(entry));
      list_loosely(tree_.prev(entry));
    }
  }

  // Visits what no list has held yet and enters every storage of it.
  void list_loosely(std::uint32_t start) {
    std::vector<std::uint32_t> waiting{start};
    while (!waiting.empty() && !done()) {
      const std::uint32_t entry = waiting.back();
      waiting.pop_back();
      if (entry >= tree_.count() || listed_[entry]) {
        continue;
      }
      listed_[entry] = true;
      test(tree_.name(entry).view());
      if (tree_.is_storage(entry)) {
        enter(entry);
      }
      waiting.push_back(tree_.next(entry));
      waiting.push_back(tree_.prev(entry));
    }
  }

  const DirTree& tree_;
  std::span<const std::string_view> tokens_;
  SiblingWalk siblings_;
  std::vector<bool> entered_;
  std::vector<bool> listed_from_;  // a list that begins here has been seen
  std::vector<bool> listed_;       // the name has been tested
  std::uint64_t steps_left_;
  std::vector<std::uint32_t> open_;         // storages to enter
  std::vector<std::uint32_t> list_;         // the list at hand, in tree order
  std::vector<std::size_t> storages_;       // places in it that may be entered
  std::vector<std::uint32_t> passed_over_;  // storages behind another entry of their name
  std::vector<named_place> sorted_;
  unsigned found_ = 0;
};

}  // namespace

unsigned search_names(const DirTree& tree, std::uint32_t storage,
                      std::span<const std::string_view> tokens) {
  return NameSearch{tree, tokens}.run(storage);
}

}  // namespace POLE
