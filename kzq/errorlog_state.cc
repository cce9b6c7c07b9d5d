#include "kzq/errorlog_state.h"

#include <cstdio>
#include <cstdlib>

#include "platform/file_system.h"
#include "platform/text.h"

namespace kzq {
namespace {

// The units of the first line, without its end.
std::u16string FirstLine(FILE* file, size_t max_units) {
  std::u16string line;
  unsigned char pair[2];
  while (line.size() < max_units && fread(pair, 1, 2, file) == 2) {
    const char16_t unit = static_cast<char16_t>(pair[0] | (pair[1] << 8));
    if (unit == u'\n') break;
    line.push_back(unit);
  }
  return line;
}

bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n'; }

// The next blank-separated word from `at`, as a scan for a string takes it.
std::u16string NextWord(const std::u16string& line, size_t* at) {
  while (*at < line.size() && IsBlank(line[*at])) ++*at;
  const size_t begin = *at;
  while (*at < line.size() && !IsBlank(line[*at])) ++*at;
  return line.substr(begin, *at - begin);
}

void PutUnits(const std::u16string& text, std::string* bytes) {
  for (char16_t unit : text) {
    bytes->push_back(static_cast<char>(unit & 0xFF));
    bytes->push_back(static_cast<char>(unit >> 8));
  }
}

}  // namespace

std::string ErrorStateFilePath(const std::string& home, const std::string& version, const std::string& server_id) {
  const char sep = platform::PathSeparator();
  return home + sep + "tmp" + sep + version + sep + server_id + sep + server_id + "_KZQERROR_EVENT";
}

namespace {

std::string ResumeLine(const ResumePoint& point) {
  std::string bytes;
  PutUnits(point.date_word + u" " + point.time_word + u" " + platform::Utf8ToUtf16(std::to_string(point.offset)) +
               u"\n",
           &bytes);
  return bytes;
}

// Opens the file for writing in place - never truncated, so a process
// killed at any instant leaves the old line or the new one - and creates it
// (and its directory) when it is not there yet.
FILE* OpenInPlace(const std::string& path) {
  if (FILE* file = fopen(path.c_str(), "r+b")) return file;
  FILE* file = fopen(path.c_str(), "wb");
  const size_t slash = path.find_last_of("\\/");
  if (file == nullptr && slash != std::string::npos) {
    platform::CreateDirectories(path.substr(0, slash));
    file = fopen(path.c_str(), "wb");
  }
  return file;
}

}  // namespace

bool WriteResumePoint(const std::string& path, const ResumePoint& point) {
  ResumePointWriter writer(path);
  return writer.Save(point);
}

ResumePointWriter::~ResumePointWriter() {
  if (file_ != nullptr) fclose(file_);
}

// One write of the whole line at the file's start. A shorter line than the
// one before leaves that one's tail after its line end, where the reader
// never looks.
bool ResumePointWriter::Save(const ResumePoint& point) {
  const std::string bytes = ResumeLine(point);
  if (file_ == nullptr) file_ = OpenInPlace(path_);
  if (file_ == nullptr) return false;
  return fseek(file_, 0, SEEK_SET) == 0 && fwrite(bytes.data(), 1, bytes.size(), file_) == bytes.size() &&
         fflush(file_) == 0;
}

std::optional<ResumePoint> ReadResumePoint(const std::string& path, size_t max_units) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return std::nullopt;
  const std::u16string line = FirstLine(file, max_units);
  fclose(file);
  ResumePoint point;
  size_t at = 0;
  point.date_word = NextWord(line, &at);
  point.time_word = NextWord(line, &at);
  const std::string number = platform::Utf16ToUtf8(NextWord(line, &at));
  char* end = nullptr;
  const long offset = number.empty() ? 0 : strtol(number.c_str(), &end, 10);
  point.values = point.date_word.empty() ? 0 : point.time_word.empty() ? 1 : (end == number.c_str() || number.empty() ? 2 : 3);
  if (point.values == 3) point.offset = offset;
  return point;
}

}  // namespace kzq
