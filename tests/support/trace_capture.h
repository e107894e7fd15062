#pragma once
// Catches the trace lines that the code under test writes: a temporary trace file at TRACE level
// for the life of the object. One at a time per process.

#include <string>
#include <vector>

class trace_capture {
 public:
  trace_capture();
  ~trace_capture();
  trace_capture(const trace_capture&) = delete;
  trace_capture& operator=(const trace_capture&) = delete;

  // Every line so far, as written to the file.
  [[nodiscard]] std::vector<std::string> lines() const;
  // How many lines hold the text (a message's line feed splits it into several lines).
  [[nodiscard]] int count(const std::string& text) const;
  // How many lines hold the text and are of the level ("ERROR", "WARN", ...).
  [[nodiscard]] int count(const std::string& level, const std::string& text) const;

 private:
  std::string path_;
};
