#include "platform/process_usage.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace platform {

namespace {

// The boot time, from which /proc counts a process's start.
int64_t BootUnixSeconds() {
  std::ifstream stat("/proc/stat");
  for (std::string line; std::getline(stat, line);)
    if (line.rfind("btime ", 0) == 0) return std::stoll(line.substr(6));
  return 0;
}

int64_t OpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int64_t count = 0;
  while (const dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++count;
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

}  // namespace

bool CurrentProcessUsage(ProcessUsage* out) {
  std::ifstream file("/proc/self/stat");
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // The command name may hold blanks and parentheses: fields count from
  // the last ')'.
  const size_t end = text.rfind(')');
  if (end == std::string::npos) return false;
  std::istringstream fields(text.substr(end + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0, start = 0, vsize = 0, rss = 0;
  for (int i = 3; fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
    if (i == 22) start = std::stoull(field);
    if (i == 23) vsize = std::stoull(field);
    if (i == 24) {
      rss = std::stoull(field);
      break;
    }
  }
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  out->cpu_seconds = static_cast<double>(utime + stime) / ticks;
  out->virtual_bytes = vsize;
  out->resident_bytes = rss * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  out->start_unix_seconds = BootUnixSeconds() + static_cast<int64_t>(static_cast<double>(start) / ticks);
  out->open_descriptors = OpenDescriptors();
  rlimit limit{};
  out->max_descriptors = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                             ? static_cast<int64_t>(limit.rlim_cur)
                             : -1;
  return true;
}

}  // namespace platform
