#pragma once
// A logger in its start state and a temporary trace path for each test.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "logging/log-helper.h"
#include "support/temp_dir.h"

class log_test : public testing::Test {
 protected:
  log_test() : trace_(folder_.file("trace.log")) {
    reset();
    kv__progname = "prog";
  }
  ~log_test() override { reset(); }

  [[nodiscard]] const temp_dir& folder() const { return folder_; }
  [[nodiscard]] const std::string& trace() const { return trace_; }

  // Lines that have a prefix and the ending; a line that has not fails the test.
  static int whole_lines(const std::string& path, const std::string& ending) {
    std::ifstream file(path);
    int count = 0;
    for (std::string line; std::getline(file, line); ++count) {
      EXPECT_TRUE(line.starts_with("[") && line.ends_with(ending)) << line.substr(0, 200);
      EXPECT_EQ(line.find("PID: "), line.rfind("PID: ")) << "two lines in one";
    }
    return count;
  }

 private:
  static void reset() {
    log_set_lock(nullptr);
    log_set_udata(nullptr);
    log_set_filename(nullptr);
    log_set_level(KV_LOG_LEVEL_OFF);
    log_set_maxsize(0);
    log_set_quiet(1);
    log_set_screentrace(0);
  }

  temp_dir folder_;
  std::string trace_;
};
