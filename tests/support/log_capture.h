// Points the diagnostic log at a fresh col.log and reads back what was
// written to it.
#pragma once

#include <gmock/gmock.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

class LogCapture {
 public:
  // The log stays open after the test, so one directory serves the whole
  // run; every capture empties the file afresh.
  explicit LogCapture(const char* wrap_lines = "30000") {
    static TempDir dir;
    platform::SetEnv("KVCLOGDIR", dir.Path());
    platform::SetEnv("COLL_WRAPLINES", wrap_lines);
    path_ = dir.File("col.log");
    WriteFile(path_, "");
    opened_ = kvc::OpenLogFile() == 0;
  }
  bool Opened() const { return opened_; }
  std::string Text() const { return ReadFile(path_); }
  // The lines without their leading date and time.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(Text());
    static const std::regex stamp("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();  // text mode on Windows
      lines.push_back(std::regex_replace(line, stamp, "", std::regex_constants::format_first_only));
    }
    return lines;
  }

 private:
  std::string path_;
  bool opened_ = false;
};

// gtest's own regular expressions are a small subset on Windows.
MATCHER_P(FullyMatches, pattern, "matches " + std::string(pattern)) {
  return std::regex_match(std::string(arg), std::regex(pattern));
}

}  // namespace kzq_test
