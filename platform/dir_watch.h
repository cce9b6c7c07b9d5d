// Change notification for the files of one directory: a file's size or
// last-write time changed, or a file was created, removed or renamed.
// Windows: ReadDirectoryChangesW; POSIX: inotify.
#pragma once

#include <memory>
#include <string>

namespace platform {

enum class WatchResult { kChanged, kTimeout, kFailed };

class DirectoryWatch {
 public:
  virtual ~DirectoryWatch() = default;
  // Waits up to `timeout_ms` for the next batch of changes and gives the
  // name of its first changed file (without directory). kFailed sets
  // *error; the watch is then of no further use.
  virtual WatchResult Next(std::string* file_name, int timeout_ms, int* error) = 0;
};

// nullptr with *error when the directory cannot be watched.
std::unique_ptr<DirectoryWatch> WatchDirectory(const std::string& directory, int* error);

}  // namespace platform
