// The errorlog monitor's resume point: the date and time words of the last
// log line handled and the byte offset to read from next, one line of
// UTF-16 text in a small file per server.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace kzq {

struct ResumePoint {
  std::u16string date_word;
  std::u16string time_word;
  long offset = 0;
  int values = 0;  // how many of the three were read back
};

// <COLL_HOME>/tmp/<COLL_VERSION>/<COLL_SERVERID>/<COLL_SERVERID>_KZQERROR_EVENT
std::string ErrorStateFilePath(const std::string& home, const std::string& version, const std::string& server_id);

// Writes "<date> <time> <offset>\n" in UTF-16LE at the file's start,
// making the file and its directory first when needed. False when it
// cannot be written.
bool WriteResumePoint(const std::string& path, const ResumePoint& point);

// Keeps the state file open while a parser run saves point after point:
// each save overwrites the line in place and never truncates, which costs
// one write instead of an open, a write and a close, and leaves a whole
// line whenever the process is killed.
class ResumePointWriter {
 public:
  explicit ResumePointWriter(std::string path) : path_(std::move(path)) {}
  ~ResumePointWriter();
  ResumePointWriter(const ResumePointWriter&) = delete;
  ResumePointWriter& operator=(const ResumePointWriter&) = delete;
  bool Save(const ResumePoint& point);

 private:
  std::string path_;
  FILE* file_ = nullptr;
};

// Reads the first line (at most `max_units` units, as the writer never
// writes more) word by word. std::nullopt when the file cannot be opened.
std::optional<ResumePoint> ReadResumePoint(const std::string& path, size_t max_units);

}  // namespace kzq
