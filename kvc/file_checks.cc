#include "kvc/file_checks.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "platform/file_system.h"

namespace kvc {
namespace {

int Verbosity(unsigned flags) {
  const DebugSwitches& d = Debug();
  if (d.full_debug) return 4;
  if (d.debug) return 1;
  return (flags & kCheckVerbose) ? 3 : 0;
}

std::optional<std::vector<std::string>>& CachedExtensions() {
  static std::optional<std::vector<std::string>> extensions;
  return extensions;
}

std::vector<std::string> Split(const std::string& list, char separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  for (size_t end; (end = list.find(separator, begin)) != std::string::npos; begin = end + 1)
    parts.push_back(list.substr(begin, end - begin));
  parts.push_back(list.substr(begin));
  return parts;
}

const std::vector<std::string>& Extensions() {
  auto& cached = CachedExtensions();
  if (!cached.has_value()) {
    const auto pathext = platform::GetEnv("PATHEXT");
    const std::string list = pathext.value_or(platform::DefaultExecutableExtensions());
    cached = Split(list, ';');
  }
  return *cached;
}

}  // namespace

int CheckFile(const char* path, unsigned flags) {
  const int verbosity = Verbosity(flags);
  platform::FileStatus status;
  const int err = platform::StatPath(path, &status);
  if (err == ENOENT) {
    if (verbosity == 4) Log('i', "ust4000", "File %s does not exist\n", path);
    return kFileMissing;
  }
  if (err != 0) {
    if (verbosity >= 1) Log('e', "uds0400", "stat error (%d %s) %s\n", err, strerror(err), path);
    return kFileError;
  }
  if (status.is_directory || status.is_char_device) {
    if (verbosity >= 2) Log('w', "ust4070", "Not a file: %s\n", path);
    return kFileNotAFile;
  }
  if (status.size == 0) {
    if (verbosity >= 1) Log('w', "ust4010", "Null file: %s\n", path);
    return kFileEmpty;
  }
  return kFileOk;
}

int FindExecutable(const char* name, std::string* found, int* position, const char* directories) {
  if (name == nullptr && found == nullptr) {
    CachedExtensions().reset();
    return kSearchImpossible;
  }
  if (name == nullptr || *name == '\0' || found == nullptr) return kSearchImpossible;
  const char list_separator = platform::PathListSeparator();
  std::string list;
  if (directories != nullptr && *directories != '\0') {
    list = directories;
  } else {
    const auto path = platform::GetEnv("PATH");
    if (!path.has_value()) return kSearchImpossible;
    list = std::string(".") + list_separator + *path;
  }
  const bool has_dot = strchr(name, '.') != nullptr;
  static const std::vector<std::string> kAsItStands{""};
  const std::vector<std::string>& extensions = has_dot ? kAsItStands : Extensions();
  size_t begin = position != nullptr && *position >= 1 && static_cast<size_t>(*position) < list.size()
                     ? static_cast<size_t>(*position)
                     : 0;
  while (begin <= list.size()) {
    size_t end = list.find(list_separator, begin);
    if (end == std::string::npos) end = list.size();
    const std::string dir = list.substr(begin, end - begin);
    const std::string base = dir.empty() ? std::string(name) : dir + platform::PathSeparator() + name;
    for (const std::string& ext : extensions) {
      const std::string candidate = base + ext;
      if (CheckFile(candidate.c_str(), 0) != kFileOk) continue;
      Log('t', "ufw3090", "Found file path %s\n", candidate.c_str());
      *found = candidate;
      if (position != nullptr) *position = static_cast<int>(end + 1);
      return kSearchFound;
    }
    begin = end + 1;
  }
  return kSearchNotFound;
}

}  // namespace kvc
