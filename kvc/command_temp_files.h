// The temporary files of command execution: their directory
// <home>/tmp/<prefix>/<server id>, their time-stamped names, and the
// cleaning by age of the files that are kept.
#pragma once

#include <cstdint>
#include <string>

#include "platform/clock.h"

namespace kvc {

// Makes sure the directory exists, creating it level by level when the
// first attempt finds a level missing. Returns its path.
std::string PrepareExecTempDirectory(const std::string& home, const std::string& prefix, const std::string& server_id);

struct ExecTempFiles {
  std::string output;  // the command's standard output and error
  std::string input;   // its parameters, when they travel by file
};

// "<prefix>_MMDDYYYYhhmmssms.out" and ".in" inside `directory`, for a UTC
// time. The field order and widths are kept as the agent has always
// written them: month, day, four-digit year, hour, minute, second, and
// milliseconds in two or three digits.
ExecTempFiles ExecTempFileNames(const std::string& directory, const std::string& prefix,
                                const platform::LocalTime& utc);

// COLL_TMPFILE_DEL_INTERVAL in minutes: 2 when unset, empty or holding
// anything but digits.
int TempFileDeleteInterval();

// Deletes the regular files of `directory` whose names begin with `prefix`
// and that were created more than `interval_minutes` before `now_unix_ms`.
void CleanExecTempFiles(const std::string& directory, const std::string& prefix, int64_t now_unix_ms,
                        int interval_minutes);

}  // namespace kvc
