// File checks and the search for a command along a list of directories.
#pragma once

#include <string>

namespace kvc {

enum FileClass {
  kFileOk = 0,        // a regular file of at least one byte
  kFileEmpty = 1,     // a regular file of zero bytes
  kFileMissing = 2,   // the path does not exist
  kFileNotAFile = 3,  // a directory or a character device
  kFileError = -1,    // the status call failed otherwise
};

// Flag of CheckFile: report missing files and odd paths even without debug.
inline constexpr unsigned kCheckVerbose = 0x2;

// Classifies `path`, logging at the verbosity that the debug switches (or
// kCheckVerbose) allow.
int CheckFile(const char* path, unsigned flags);

enum SearchResult {
  kSearchFound = 0,
  kSearchNotFound = 1,
  kSearchImpossible = 2,  // no name, or no directory list
};

// Looks for `name` in each directory of `directories` (the platform's list
// separator between them; null or empty: the current directory, then PATH),
// trying the PATHEXT extensions when the name has no '.'. On success the
// full path goes to *found and, when `position` is given, *position becomes
// the offset just past the directory where it was found, so that a call
// with the same position continues the search. Called with neither name
// nor result, it forgets the cached extension list.
int FindExecutable(const char* name, std::string* found, int* position, const char* directories);

}  // namespace kvc
