#include "kvc/command_temp_files.h"

#include <cstdio>
#include <cstdlib>

#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "platform/error.h"
#include "platform/file_system.h"

namespace kvc {
namespace {

// Milliseconds from 1601-01-01 to 1970-01-01: the traces show file times
// in milliseconds, as Windows counts them.
constexpr double kFileTimeEpochMillis = 11644473600000.0;

std::string Join(const std::string& directory, const std::string& name) {
  return directory + platform::PathSeparator() + name;
}

}  // namespace

std::string PrepareExecTempDirectory(const std::string& home, const std::string& prefix, const std::string& server_id) {
  const std::string tmp = Join(home, "tmp");
  const std::string agent = Join(tmp, prefix);
  const std::string instance = Join(agent, server_id);
  if (platform::MakeDirectory(instance) == platform::kErrAlreadyExists) return instance;
  KVC_DEBUG_TRACE("uex3011", "Temp directory path does not exist : %s\n", instance.c_str());
  if (platform::MakeDirectory(tmp) == platform::kErrAlreadyExists)
    KVC_DEBUG_TRACE("uex3011", "tmp directory exists : %s\n", tmp.c_str());
  if (platform::MakeDirectory(agent) == platform::kErrAlreadyExists)
    KVC_DEBUG_TRACE("uex3011", "temp agent directory exists : %s\n", agent.c_str());
  // The commands' arguments and answers (a statement, its rows) are the
  // service account's alone.
  if (platform::MakePrivateDirectory(instance) == platform::kErrAlreadyExists)
    KVC_DEBUG_TRACE("uex3011", "agent instance tmp directory exists : %s\n", instance.c_str());
  return instance;
}

ExecTempFiles ExecTempFileNames(const std::string& directory, const std::string& prefix,
                                const platform::LocalTime& utc) {
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%2.2d%2.2d%2.2d%2.2d%2.2d%2.2d%2.2d", utc.month, utc.day, utc.year, utc.hour,
           utc.minute, utc.second, utc.millisecond);
  const std::string base = Join(directory, prefix + "_" + stamp);
  return {base + ".out", base + ".in"};
}

int TempFileDeleteInterval() {
  constexpr int kDefaultMinutes = 2;
  const std::string value = platform::GetEnv("COLL_TMPFILE_DEL_INTERVAL").value_or("");
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos) return kDefaultMinutes;
  return atoi(value.c_str());
}

void CleanExecTempFiles(const std::string& directory, const std::string& prefix, int64_t now_unix_ms,
                        int interval_minutes) {
  const double now = static_cast<double>(now_unix_ms) + kFileTimeEpochMillis;
  const double limit = static_cast<double>(interval_minutes) * 60000.0;
  for (const std::string& name : platform::ListDirectory(directory)) {
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string path = Join(directory, name);
    platform::FileStatus status;
    if (platform::StatPath(path, &status) != 0 || !status.is_regular) continue;
    const double created = static_cast<double>(status.created) * 1000.0 + kFileTimeEpochMillis;
    KVC_DEBUG_TRACE("uex3051",
                    "Current system time(ms) : %f, File create time(ms) : %f, Difference in milliseconds : %f\n", now,
                    created, now - created);
    // Traced for every file looked at, whether it goes or stays.
    KVC_DEBUG_TRACE("uex3051", "Delete this file : %s\n", path.c_str());
    if (now - created > limit) remove(path.c_str());
  }
}

}  // namespace kvc
