#include "framework/trace_file.h"

#include <cctype>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "framework/trace.h"
#include "platform/file_system.h"

namespace framework {
namespace {

std::string Upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// Splits at blanks outside double quotes; quotes are dropped.
std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  for (char c : text) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ' ' && !quoted) {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

void ReplaceAll(std::string* text, const std::string& from, const std::string& to) {
  for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size()))
    text->replace(at, from.size(), to);
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

// The trace directory is made when missing: nothing else makes it.
void CreateParentDirectory(const std::string& path) {
  const size_t slash = path.find_last_of("/\\");
  if (slash != std::string::npos && slash > 0) platform::CreateDirectories(path.substr(0, slash));
}

}  // namespace

std::optional<TraceLogSpec> ParseTraceLogSpec(std::string_view text) {
  TraceLogSpec spec;
  for (const std::string& word : Words(text)) {
    const size_t equals = word.find('=');
    const std::string key = equals == std::string::npos ? "" : Upper(word.substr(0, equals));
    const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (key == "INVENTORY") {
      spec.inventory = value;
    } else if (key == "COUNT") {
      if (atoi(value.c_str()) > 0) spec.count = atoi(value.c_str());
    } else if (key == "LIMIT") {
      if (atoi(value.c_str()) > 0) spec.limit_bytes = static_cast<int64_t>(atoi(value.c_str())) << 20;
    } else if (key == "MAXFILES") {
      if (atoi(value.c_str()) > 0) spec.maxfiles = atoi(value.c_str());
    } else if (key.empty() && spec.file.empty()) {
      spec.file = word;
    }
  }
  if (spec.file.empty()) return std::nullopt;
  return spec;
}

std::string ExpandTraceVariables(std::string text, const std::string& prefix, const std::string& task,
                                 const std::string& utc_start) {
  ReplaceAll(&text, prefix + "(systask)", task);
  ReplaceAll(&text, prefix + "(sysutcstart)", utc_start);
  return text;
}

int TraceLevelFromSpec(std::string_view spec) {
  const std::string words = Upper(spec.substr(0, spec.find('>')));
  int level = kTraceError;
  const auto has = [&](const char* word) {
    for (size_t at = words.find(word); at != std::string::npos; at = words.find(word, at + 1)) {
      const size_t end = at + strlen(word);
      const bool starts = at == 0 || !std::isalnum(static_cast<unsigned char>(words[at - 1]));
      const bool ends = end >= words.size() || !std::isalnum(static_cast<unsigned char>(words[end]));
      if (starts && ends) return true;
    }
    return false;
  };
  if (has("FLOW")) level |= kTraceFlow;
  if (has("DETAIL") || has("ALL")) level |= kTraceFlow | kTraceDetail;
  return level;
}

RollingTraceFile::RollingTraceFile(TraceLogSpec spec) : spec_(std::move(spec)) {}

RollingTraceFile::~RollingTraceFile() {
  if (file_ != nullptr) fclose(file_);
}

bool RollingTraceFile::OpenNext() {
  if (file_ != nullptr) fclose(file_);
  number_ = number_ % spec_.count + 1;
  path_ = spec_.file;
  const size_t dash = path_.find("-.");
  if (dash != std::string::npos) path_.insert(dash + 1, std::to_string(number_));
  CreateParentDirectory(path_);
  file_ = fopen(path_.c_str(), "wb");
  written_ = 0;
  if (file_ != nullptr) RecordInInventory();
  return file_ != nullptr;
}

// Adds the file (once) and deletes the oldest files beyond MAXFILES. The
// list is written to a temporary file first, so a crash while writing
// never leaves half a list.
void RollingTraceFile::RecordInInventory() {
  if (spec_.inventory.empty()) return;
  std::vector<std::string> files = ReadLines(spec_.inventory);
  for (auto it = files.begin(); it != files.end();) it = *it == path_ ? files.erase(it) : it + 1;
  files.push_back(path_);
  while (static_cast<int>(files.size()) > spec_.maxfiles) {
    remove(files.front().c_str());
    files.erase(files.begin());
  }
  const std::string temporary = spec_.inventory + ".tmp";
  if (FILE* out = fopen(temporary.c_str(), "wb")) {
    for (const std::string& f : files) fprintf(out, "%s\n", f.c_str());
    fclose(out);
    remove(spec_.inventory.c_str());  // Windows will not rename over a file
    rename(temporary.c_str(), spec_.inventory.c_str());
  }
}

bool RollingTraceFile::Write(const char* text, size_t length) {
  if (file_ == nullptr || written_ + static_cast<int64_t>(length) > spec_.limit_bytes) {
    if (!OpenNext()) return false;
  }
  fwrite(text, 1, length, file_);
  written_ += static_cast<int64_t>(length);
  return true;
}

void RollingTraceFile::Flush() {
  if (file_ != nullptr) fflush(file_);
}

}  // namespace framework
