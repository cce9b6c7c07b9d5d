#include "bench/cpu_pinning.h"

#include <sched.h>

#include <cerrno>

namespace bench {

int PinToOneCpu(int* error) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
    *error = errno;
    return -1;
  }
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
      *error = errno;
      return -1;
    }
    return cpu;
  }
  *error = EINVAL;
  return -1;
}

}  // namespace bench
