// Asking the service manager whether a service runs, and with which
// process.
//
// Windows: the service control manager. POSIX has none to ask, so a service
// is found in this order: its pid file `<runtime dir>/<name>.pid`, else the
// systemd unit that KZQ_SERVICE_UNITS maps it to ("NAME=unit[,NAME=unit...]",
// names in any case; "MSSQLSERVER=mssql-server" when unset), whose processes
// are listed in `<KZQ_CGROUP_ROOT or /sys/fs/cgroup>/system.slice/<unit>.service/
// cgroup.procs` (or below `systemd/` for a version 1 hierarchy). A name with
// neither fails to open with 1060, as on Windows; one that cannot be a file
// name (empty, over 256 characters, holding '/' or '\') with 123.
#pragma once

#include <cstdint>

#include "platform/service_host.h"

namespace platform {

// The step that failed, so that the caller can name the call in its message.
enum class ServiceProbeStep { kOpenManager, kOpenService, kQueryStatus };

struct ServiceProbe {
  bool ok = false;  // the state was read
  ServiceProbeStep failed_step = ServiceProbeStep::kOpenManager;  // when !ok
  int error = 0;                                                 // Windows error number when !ok
  uint32_t state = 0;  // kServiceStopped, kServiceRunning...
  uint32_t process_id = 0;
};

ServiceProbe QueryService(const char* name);

}  // namespace platform
