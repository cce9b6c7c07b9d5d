// Asking the service manager whether a service runs, and with which
// process.
//
// Windows: the service control manager. POSIX has none to ask, so a service
// is found in this order: its pid file (PidFilePath), else the
// systemd unit that KZQ_SERVICE_UNITS maps it to ("NAME=unit[,NAME=unit...]",
// names in any case; "MSSQLSERVER=mssql-server" when unset), whose processes
// are listed in `<KZQ_CGROUP_ROOT or /sys/fs/cgroup>/system.slice/<unit>.service/
// cgroup.procs` (or below `systemd/` for a version 1 hierarchy). A name with
// neither fails to open with 1060, as on Windows; one that cannot be a file
// name (empty, over 256 characters, holding '/' or '\') with 123.
#pragma once

#include <cstdint>
#include <string>

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

// Where a service of this server leaves its process id for the probe:
// `<runtime dir>/<service>_<COLL_SERVERID>.pid`, or `<service>.pid` when no
// server id is set, so the services of two servers on one host never share
// a file.
std::string PidFilePath(const std::string& service);

}  // namespace platform
