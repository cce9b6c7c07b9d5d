// The trace facility's rolling files, as the log setting describes them:
//   <path with -.> INVENTORY=<file> COUNT=<n> PRESERVE=<0|1> LIMIT=<MB> MAXFILES=<n>
// "<prefix>(systask)" and "<prefix>(sysutcstart)" in the names become the
// program's name and its start time (UTC, YYYYMMDDHHMMSS). The "-." of the
// file name takes the file's number: a file that reaches LIMIT megabytes
// is closed and the next number opened, wrapping after COUNT files. The
// inventory lists every trace file written, oldest first; when it lists
// more than MAXFILES, the oldest files are deleted.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace framework {

struct TraceLogSpec {
  std::string file;       // with "-." where the number goes
  std::string inventory;  // empty: none kept
  int count = 3;
  int64_t limit_bytes = 1 << 20;
  int maxfiles = 10;
};

// Parses a log setting; nothing when it names no file.
std::optional<TraceLogSpec> ParseTraceLogSpec(std::string_view text);

// Replaces <prefix>(systask) and <prefix>(sysutcstart).
std::string ExpandTraceVariables(std::string text, const std::string& prefix, const std::string& task,
                                 const std::string& utc_start);

// Trace level bits from a trace setting: ERROR, FLOW, DETAIL and ALL
// words (any case) before its '>'.
int TraceLevelFromSpec(std::string_view spec);

class RollingTraceFile {
 public:
  explicit RollingTraceFile(TraceLogSpec spec);
  ~RollingTraceFile();
  RollingTraceFile(const RollingTraceFile&) = delete;
  RollingTraceFile& operator=(const RollingTraceFile&) = delete;

  // Appends text, moving to the next file first when this one is full.
  // False when no file could be opened (the text is lost, nothing else).
  bool Write(const char* text, size_t length);
  void Flush();
  const std::string& CurrentPath() const { return path_; }

 private:
  bool OpenNext();
  void RecordInInventory();

  const TraceLogSpec spec_;
  FILE* file_ = nullptr;
  std::string path_;
  int number_ = 0;
  int64_t written_ = 0;
};

}  // namespace framework
