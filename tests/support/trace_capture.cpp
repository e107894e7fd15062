#include "support/trace_capture.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "logging/log-helper.h"

trace_capture::trace_capture() : path_("/tmp/kv-trace-XXXXXX") {
  const int descriptor = mkstemp(path_.data());
  if (descriptor < 0) {
    throw std::runtime_error("no temporary trace file");
  }
  close(descriptor);
  log_set_quiet(1);
  log_set_screentrace(0);
  log_set_level(KV_LOG_LEVEL_TRACE);
  log_set_filename(path_.c_str());
}

trace_capture::~trace_capture() {
  log_set_level(KV_LOG_LEVEL_OFF);
  log_set_filename(nullptr);
  unlink(path_.c_str());
}

std::vector<std::string> trace_capture::lines() const {
  std::ifstream file(path_);
  std::vector<std::string> result;
  for (std::string line; std::getline(file, line);) {
    result.push_back(line);
  }
  return result;
}

int trace_capture::count(const std::string& text) const {
  const auto all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  }));
}

int trace_capture::count(const std::string& level, const std::string& text) const {
  const auto all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
    return line.find("] " + level) != std::string::npos && line.find(text) != std::string::npos;
  }));
}
