// File status and directory creation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct FileStatus {
  bool is_regular = false;
  bool is_directory = false;
  bool is_char_device = false;
  uint64_t size = 0;
  int64_t modified = 0;  // seconds since 1970 UTC
  // Creation time where the OS keeps one; on POSIX the birth time when the
  // file system records it, else the last status change.
  int64_t created = 0;
};

// Status of a path. Returns 0, or the C library's errno value for the
// failure (ENOENT when the path does not exist), so that callers can print
// it with strerror.
int StatPath(const std::string& path, FileStatus* out);

// Creates the directory and any missing parents. Returns 0 (also when it
// already exists) or a Windows error number.
int CreateDirectories(const std::string& path);

// Creates one directory whose parent exists. Returns 0, 183 when the path
// already exists, or another Windows error number.
int MakeDirectory(const std::string& path);

// As MakeDirectory, for a directory only the running account may enter
// (POSIX mode 0700; Windows an access list with that account alone): what
// is written in it (command arguments, answers) is nobody else's to read.
int MakePrivateDirectory(const std::string& path);

// The names of a directory's entries, "." and ".." left out, in no
// particular order; empty when it cannot be read.
std::vector<std::string> ListDirectory(const std::string& directory);

// The native separator of path elements.
char PathSeparator();

// The separator of directory lists such as PATH.
char PathListSeparator();

// Extensions tried for a command named without one when PATHEXT is unset:
// ".COM;.EXE;.BAT;.CMD" on Windows, none on POSIX, where a command is
// tried as it stands.
const char* DefaultExecutableExtensions();

// The name of the directory's entry that matches `name` in any ASCII case
// (the exact spelling first), or `name` itself when there is none. File
// names are case-insensitive on Windows, where this is `name` unchanged.
std::string FindEntryIgnoringCase(const std::string& directory, const std::string& name);

// Where process-shared helper files (lock files, pid files) live:
// $KZQ_RUNTIME_DIR; when unset, on POSIX $XDG_RUNTIME_DIR/kzq, else
// /tmp/kzq-<uid> - a directory of the account's own, never a directory
// every account may write - and the temporary directory on Windows.
std::string RuntimeDirectory();

// Makes the runtime directory ready for this process's files: created
// when missing (owner-only on POSIX), and on POSIX refused (5) when another
// account owns it or accounts other than its owner's group may write it,
// so nobody else can plant files or links there. Returns 0 or a Windows
// error number.
int PrepareRuntimeDirectory();

// Replaces the content of the file at `path` with `text`, creating it
// when missing. A link at `path` is not followed (the write fails), and an
// existing file keeps its owner and mode. Returns 0 or a Windows error
// number.
int WriteFileNoFollow(const std::string& path, const std::string& text);

}  // namespace platform
