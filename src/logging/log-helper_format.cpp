// The two line formats of the trace log: pure functions.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "logging/log-helper.h"
#include "logging/log-helper_internal.h"

namespace {

// Parallel tables, indexed by level.
constexpr std::array<const char*, 7> kLevelNames{"OFF",  "FATAL", "ERROR", "WARN",
                                                 "INFO", "DEBUG", "TRACE"};
constexpr std::array<const char*, 7> kLevelColours{"\033[94m", "\033[36m", "\033[31m", "\033[33m",
                                                   "\033[32m", "\033[35m", "\033[34m"};
constexpr std::size_t kSecondsBufferSize = 20;  // "2024-03-05 14:07:09" and its end

std::size_t s_index(std::uint32_t level) {
  return std::min<std::size_t>(level, kLevelNames.size() - 1);
}

// "[time] LEVEL PID: 1 TID: 2 program:function(): " with the colour before the level name.
std::string s_prefix(const kv_log_line& line, const char* colour) {
  char numbers[96];
  std::snprintf(numbers, sizeof numbers, "%s%-5s PID: %6d TID: %6lu ", colour,
                kLevelNames[s_index(line.level)], static_cast<int>(getpid()),
                static_cast<unsigned long>(pthread_self()));
  std::string text;
  text.append("[").append(line.timestamp).append("] ").append(numbers);
  return text.append(kv__progname).append(":").append(line.function).append("(): ");
}

}  // namespace

std::string kv_log_timestamp(const timespec& time) {
  std::tm utc{};
  char seconds[kSecondsBufferSize];
  if (gmtime_r(&time.tv_sec, &utc) == nullptr ||
      std::strftime(seconds, sizeof seconds, "%Y-%m-%d %H:%M:%S", &utc) == 0) {
    return {};
  }
  char text[kSecondsBufferSize + 24];
  std::snprintf(text, sizeof text, "%s.%03ld", seconds,
                std::lround(static_cast<double>(time.tv_nsec) / 1e6));
  return text;
}

std::string kv_log_file_line(const kv_log_line& line, bool with_source) {
  std::string text = s_prefix(line, "");
  text.append(line.message);
  if (with_source) {
    text.append(" (").append(line.file).append(":").append(std::to_string(line.line)).append(")");
  }
  return text.append("\n");
}

std::string kv_log_screen_line(const kv_log_line& line) {
  // The level's colour lasts to the end of the message on purpose.
  std::string text = s_prefix(line, kLevelColours[s_index(line.level)]);
  text.append(line.message).append(" \033[90m(").append(line.file).append(":");
  return text.append(std::to_string(line.line)).append(")\033[0m \n");
}
