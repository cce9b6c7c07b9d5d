// Change notification for the files of one directory: a file's size or
// last-write time changed, or a file was created, removed or renamed.
// Windows: ReadDirectoryChangesW; POSIX: inotify.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace platform {

// kOverflow: changes came faster than the system could keep them and some
// were lost; whatever is watched must be looked at again.
enum class WatchResult { kChanged, kTimeout, kOverflow, kFailed };

class DirectoryWatch {
 public:
  virtual ~DirectoryWatch() = default;
  // Waits up to `timeout_ms` for the next batch of changes and gives the
  // names of every file it changed (without directory, in order, repeats
  // kept). kFailed sets *error; the watch is then of no further use.
  virtual WatchResult Next(std::vector<std::string>* file_names, int timeout_ms, int* error) = 0;
};

// nullptr with *error when the directory cannot be watched.
std::unique_ptr<DirectoryWatch> WatchDirectory(const std::string& directory, int* error);

}  // namespace platform
