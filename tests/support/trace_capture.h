// The framework's trace lines of one level, written to a file of the
// test's own while the capture lives.
#pragma once

#include <cstdio>
#include <string>

#include "framework/trace.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

class TraceCapture {
 public:
  explicit TraceCapture(int level) : file_(fopen(dir_.File("trace.txt").c_str(), "wb+")) {
    framework::SetTraceStream(file_);
    framework::SetTraceLevel(level);
  }
  ~TraceCapture() { Stop(); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Traces nothing more from here on.
  void Stop() {
    if (file_ == nullptr) return;
    framework::SetTraceStream(nullptr);
    framework::SetTraceLevel(0);
    fclose(file_);
    file_ = nullptr;
  }
  // What was traced so far.
  std::string Text() const {
    if (file_ != nullptr) fflush(file_);
    return ReadFile(dir_.File("trace.txt"));
  }

 private:
  TempDir dir_;
  FILE* file_;
};

}  // namespace kzq_test
