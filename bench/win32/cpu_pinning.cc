#include "bench/cpu_pinning.h"

#include <windows.h>

namespace bench {

int PinToOneCpu(int* error) {
  DWORD_PTR allowed = 0, system = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &allowed, &system)) {
    *error = static_cast<int>(GetLastError());
    return -1;
  }
  for (int cpu = 0; cpu < static_cast<int>(sizeof allowed * 8); ++cpu) {
    const DWORD_PTR one = static_cast<DWORD_PTR>(1) << cpu;
    if ((allowed & one) == 0) continue;
    if (!SetProcessAffinityMask(GetCurrentProcess(), one)) {
      *error = static_cast<int>(GetLastError());
      return -1;
    }
    return cpu;
  }
  *error = ERROR_INVALID_PARAMETER;
  return -1;
}

}  // namespace bench
