#include "platform/process_usage.h"

#include <windows.h>
#include <psapi.h>

namespace platform {

namespace {

uint64_t Ticks(const FILETIME& time) {
  return (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

}  // namespace

bool CurrentProcessUsage(ProcessUsage* out) {
  const HANDLE self = GetCurrentProcess();
  FILETIME created, ended, kernel, user;
  if (!GetProcessTimes(self, &created, &ended, &kernel, &user)) return false;
  // FILETIME counts 100 ns from 1601-01-01.
  out->cpu_seconds = static_cast<double>(Ticks(kernel) + Ticks(user)) / 1e7;
  out->start_unix_seconds = static_cast<int64_t>(Ticks(created) / 10000000ULL) - 11644473600LL;
  PROCESS_MEMORY_COUNTERS_EX memory{};
  memory.cb = sizeof memory;
  if (K32GetProcessMemoryInfo(self, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof memory)) {
    out->resident_bytes = memory.WorkingSetSize;
    out->virtual_bytes = memory.PrivateUsage;
  }
  DWORD handles = 0;
  out->open_descriptors = GetProcessHandleCount(self, &handles) ? handles : -1;
  out->max_descriptors = -1;  // handles have no limit of their own to report
  return true;
}

}  // namespace platform
