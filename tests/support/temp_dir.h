// A scratch directory for one test, removed with everything in it.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/process.h"

namespace kzq_test {

class TempDir {
 public:
  TempDir() {
    static std::atomic<int> sequence{0};
    path_ = std::filesystem::temp_directory_path() /
            ("kzq-" + std::to_string(platform::CurrentProcessId()) + "-" +
             std::to_string(sequence++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string Path() const { return path_.string(); }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace kzq_test
