#pragma once
// The consolidation of file results step by step, every pair compared: slow and plain, the measure
// for the one in use.

#include <string>
#include <vector>

struct literal_row {
  std::int32_t code = 0;
  std::string name;
  bool has_reason = true;
  std::string reason;
  std::string error;
  bool operator==(const literal_row&) const = default;
};

struct literal_result {
  std::int32_t code = 0;
  std::string reasons;
  std::string error;
  bool operator==(const literal_result&) const = default;
};

inline void literal_parent(const literal_row& file, literal_row& parent) {
  if (parent.has_reason) {
    if (parent.code > file.code) {
      parent.code = file.code;
    }
    if (!parent.reason.empty()) {
      return;
    }
  }
  parent.has_reason = true;
  parent.reason = file.has_reason ? file.reason : "";
}

inline void literal_reason(std::string& reasons, const std::string& reason, bool first) {
  if (reasons.find(reason) != std::string::npos) {
    return;
  }
  reasons += (reasons.empty() || first ? "" : "; ") + reason;
  if (reasons.size() > 4096) {
    reasons.erase(4096);
  }
}

inline literal_result literal_summary(std::vector<literal_row>& files) {
  literal_result result;
  bool first = true;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (files[i].code > -199 && files[i].code != -100) {
      continue;
    }
    literal_reason(result.reasons, files[i].has_reason ? files[i].reason : "", first);
    first = false;
    for (std::size_t j = 0; j < files.size(); ++j) {
      if (j != i && files[i].name.compare(0, files[j].name.size(), files[j].name) == 0) {
        literal_parent(files[i], files[j]);
      }
    }
    if (files[i].code <= result.code) {
      result.code = files[i].code;
      if (!files[i].error.empty()) {
        result.error = files[i].error;
      }
    }
  }
  return result;
}
