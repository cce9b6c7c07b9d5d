// What this process uses of the machine, as exporters report it about
// themselves. Any thread.
#pragma once

#include <cstdint>

namespace platform {

struct ProcessUsage {
  double cpu_seconds = 0;          // user and system time together
  uint64_t resident_bytes = 0;     // memory in RAM (the working set on Windows)
  uint64_t virtual_bytes = 0;      // address space (committed memory on Windows)
  int64_t open_descriptors = -1;   // descriptors (handles on Windows); -1 unknown
  int64_t max_descriptors = -1;    // the limit of them; -1 when there is none to speak of
  int64_t start_unix_seconds = 0;  // when the process started
};

// False when the operating system would not say.
bool CurrentProcessUsage(ProcessUsage* out);

}  // namespace platform
