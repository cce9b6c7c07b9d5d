#include "kzq/service_status.h"

#include <cstdlib>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "platform/service_probe.h"

namespace kzq {
namespace {

constexpr const char* kMessageId = "cml1525";

// A service that is not there is worth an error; a status query that
// fails on a service that is there is only of interest when debugging.
void LogFailure(const platform::ServiceProbe& probe) {
  switch (probe.failed_step) {
    case platform::ServiceProbeStep::kOpenManager:
      kvc::Log('e', kMessageId, "Error in check_service_status:OpenSCManager() Error Code: %d\n", probe.error);
      break;
    case platform::ServiceProbeStep::kOpenService:
      kvc::Log('e', kMessageId, "Error in check_service_status:OpenServiceA() Error Code: %d\n", probe.error);
      break;
    case platform::ServiceProbeStep::kQueryStatus:
      if (kvc::Debug().debug)
        kvc::Log('w', kMessageId, "Error in check_service_status:QueryServiceStatusEx() Error Code: %d\n",
                 probe.error);
      break;
  }
}

}  // namespace

uint32_t check_service_status(const char* service_name) {
  const platform::ServiceProbe probe = platform::QueryService(service_name);
  if (!probe.ok) {
    LogFailure(probe);
    return 0;
  }
  // A running service without a process id counts as not running.
  if (probe.state == platform::kServiceRunning) return probe.process_id;
  if (kvc::Debug().debug)
    kvc::Log('w', kMessageId, "QueryServiceStatusEx() returned service_status: %d\n", static_cast<int>(probe.state));
  return 0;
}

bool ServiceRuns(const char* service_name) {
  const platform::ServiceProbe probe = platform::QueryService(service_name);
  return probe.ok && probe.state == platform::kServiceRunning && probe.process_id != 0;
}

}  // namespace kzq
