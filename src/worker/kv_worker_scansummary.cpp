#define KV_LOG_UNIT "kv_worker"
#include "worker/kv_worker_scan_types.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "logging/log-helper.h"

namespace {

constexpr const char* kSummary = "kv_worker_create_scan_results_summary";
constexpr std::size_t kMaxReasons = 4096;

using file_span = std::span<kv_file_scan_result_t* const>;

const char* s_text(const char* text) {
  return text == nullptr ? "" : text;
}

bool s_is_blocking(std::int32_t code) {
  return code == KV_RESULT_NOT_READABLE || code <= -199;
}

// Replaces an owned text by a copy.
void s_replace(char*& text, const char* by) {
  char* const copy = strdup(by);
  std::free(text);
  text = copy;
}

// A parent that had no reason at all takes the file's reason but keeps its own code; one whose
// reason is merely empty takes both.
void s_pass_to_parent(const kv_file_scan_result_t& file, kv_file_scan_result_t& parent) {
  if (parent.blocking_reason != nullptr) {
    if (parent.return_code > file.return_code) {
      KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary,
                "  Previous rc %d is less critical than current rc %d, updating rc",
                parent.return_code, file.return_code);
      parent.return_code = file.return_code;
    }
    if (*parent.blocking_reason != '\0') {
      KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "  Already is blocked: %s", parent.blocking_reason);
      return;
    }
  }
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "Adding blocking reason [%s] to parent file [%s]",
            s_text(file.blocking_reason), s_text(parent.file_name));
  s_replace(parent.blocking_reason, s_text(file.blocking_reason));
}

// Finds a file's parents: the other files whose names its own name begins with.
class parent_search {
 public:
  virtual ~parent_search() = default;
  virtual void pass_to_parents(std::size_t file) = 0;
};

// Compares every pair, and logs each.
class compared_parents final : public parent_search {
 public:
  explicit compared_parents(file_span files) : files_(files) {}

  void pass_to_parents(std::size_t file) override {
    for (std::size_t other = 0; other < files_.size(); ++other) {
      if (other != file) {
        s_compare(*files_[file], *files_[other]);
      }
    }
  }

 private:
  static void s_compare(const kv_file_scan_result_t& file, kv_file_scan_result_t& other) {
    const char* const name = s_text(file.file_name);
    const char* const other_name = s_text(other.file_name);
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "Comparing: \n  Parent: [%s] \n  This:   [%s]",
              other_name, name);
    if (!std::string_view{name}.starts_with(other_name)) {
      KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "%s is not a parent of %s", other_name, name);
      return;
    }
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "Is parent");
    s_pass_to_parent(file, other);
  }

  file_span files_;
};

// Finds the same parents without comparing pairs. Files of one name form a group; in sorted order
// every name stands behind the names it begins with, so that each group knows the longest of them,
// and following these links gives all.
class linked_parents final : public parent_search {
 public:
  explicit linked_parents(file_span files) : files_(files), group_of_(files.size()) {
    std::vector<std::size_t> order(files.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, {}, [&](std::size_t file) { return name(file); });
    for (const std::size_t file : order) {
      if (groups_.empty() || groups_.back().name != name(file)) {
        open_group(name(file));
      }
      groups_.back().files.push_back(file);
      group_of_[file] = groups_.size() - 1;
    }
  }

  void pass_to_parents(std::size_t file) override {
    for (std::size_t g = group_of_[file]; g != kNone; g = groups_[g].parent) {
      if (!is_settled(groups_[g], *files_[file])) {
        pass_to_group(groups_[g], file);
      }
    }
  }

 private:
  static constexpr std::size_t kNone = SIZE_MAX;

  struct group {
    std::string_view name;
    std::size_t parent;              // group of the longest other name that this one begins with
    std::vector<std::size_t> files;  // in no particular order
    // Bounds on the files' state, so that a file that would change none of them is passed over. The
    // first pass makes them true.
    std::int32_t highest_code = INT32_MAX;
    bool none_is_null = false;
    bool none_is_empty = false;
  };

  [[nodiscard]] std::string_view name(std::size_t file) const {
    return s_text(files_[file]->file_name);
  }

  void open_group(std::string_view name) {
    std::size_t parent = groups_.empty() ? kNone : groups_.size() - 1;
    while (parent != kNone && !name.starts_with(groups_[parent].name)) {
      parent = groups_[parent].parent;
    }
    groups_.push_back({.name = name, .parent = parent, .files = {}});
  }

  // A parent changes when its code is higher than the file's, when it has no reason at all, or when
  // its reason is empty and the file's is not.
  static bool is_settled(const group& g, const kv_file_scan_result_t& file) {
    const bool adds_text = *s_text(file.blocking_reason) != '\0';
    return g.highest_code <= file.return_code && g.none_is_null && (g.none_is_empty || !adds_text);
  }

  void pass_to_group(group& g, std::size_t file) {
    g.highest_code = INT32_MIN;
    g.none_is_null = true;
    g.none_is_empty = true;
    for (const std::size_t other : g.files) {
      kv_file_scan_result_t& parent = *files_[other];
      if (other != file) {
        s_pass_to_parent(*files_[file], parent);
      }
      g.highest_code = std::max(g.highest_code, parent.return_code);
      g.none_is_null = g.none_is_null && parent.blocking_reason != nullptr;
      g.none_is_empty = g.none_is_empty && *s_text(parent.blocking_reason) != '\0';
    }
  }

  file_span files_;
  std::vector<std::size_t> group_of_;
  std::vector<group> groups_;
};

// Adds a reason once, behind "; " unless it is the first; what does not fit is cut.
void s_add_reason(std::string& reasons, const char* reason, bool is_first) {
  if (memmem(reasons.data(), reasons.size(), reason, std::strlen(reason)) != nullptr) {
    return;
  }
  if (!reasons.empty() && !is_first) {
    reasons += "; ";
  }
  reasons += reason;
  reasons.resize(std::min(reasons.size(), kMaxReasons));
}

void s_adjust_result(kv_scan_result_t& result, const kv_file_scan_result_t& file) {
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "Result for %s is %d, Consolidated rc is %d",
            s_text(file.file_name), file.return_code, result.return_code);
  if (file.return_code > result.return_code) {
    return;
  }
  result.return_code = file.return_code;
  KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "adjusted consolidated result to %d", result.return_code);
  if (*s_text(file.error) != '\0') {
    s_replace(result.error, file.error);
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "adjusted consolidated error to %s", result.error);
  }
}

std::string s_consolidate(kv_scan_result_t& result, file_span files, parent_search& parents) {
  std::string reasons;
  bool is_first = true;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const kv_file_scan_result_t& file = *files[i];
    if (!s_is_blocking(file.return_code)) {
      continue;
    }
    s_add_reason(reasons, s_text(file.blocking_reason), is_first);
    is_first = false;
    KV_LOG_AS(KV_LOG_LEVEL_TRACE, kSummary, "Checking parents of file [%s]",
              s_text(file.file_name));
    parents.pass_to_parents(i);
    s_adjust_result(result, file);
  }
  return reasons;
}

// The line of each comparison is wanted at TRACE only, and only there the pairs are worth their
// price.
std::string s_consolidate(kv_scan_result_t& result) {
  const file_span files{result.files, static_cast<std::size_t>(result.file_count)};
  if (log_is_enabled(KV_LOG_LEVEL_TRACE)) {
    compared_parents parents{files};
    return s_consolidate(result, files, parents);
  }
  linked_parents parents{files};
  return s_consolidate(result, files, parents);
}

// What needs no memory: without reasons and error text a result is still not called clean.
void s_take_lowest_code(kv_scan_result_t& result) {
  for (const kv_file_scan_result_t* const file :
       file_span{result.files, static_cast<std::size_t>(result.file_count)}) {
    if (s_is_blocking(file->return_code)) {
      result.return_code = std::min(result.return_code, file->return_code);
    }
  }
}

}  // namespace

int kv_worker_create_scan_results_summary(kv_scan_result_t* result) {
  if (result == nullptr) {
    KV_LOG_ERROR("Invalid pointer result");
    return -1;
  }
  try {
    if (result->file_count > 0) {
      s_replace(result->reasons, s_consolidate(*result).c_str());
    }
  } catch (const std::exception& failure) {
    KV_LOG_ERROR("%s", failure.what());
    s_take_lowest_code(*result);
    return -1;
  }
  if (result->reasons != nullptr) {
    KV_LOG_DEBUG("Returning reasons: %s", result->reasons);
  }
  return 0;
}
