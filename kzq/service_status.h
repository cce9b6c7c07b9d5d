// Whether a service the agent depends on runs: the collector service
// (KZQCOLL<n>) and the database service (MSSQLSERVER, MSSQL$<instance>).
// Asked afresh on every call; failures go to the diagnostic log.
#pragma once

#include <cstdint>
#include <string>

namespace kzq {

// The process id of the named service when it is running, 0 in every
// other case. Failing to reach the service manager or the service is
// always logged; a failed status query and a service in any state but
// running are logged only with the debug flag on.
uint32_t check_service_status(const char* service_name);

// Whether the service runs, asked without logging anything: for consumers
// that ask often and only want the answer.
bool ServiceRuns(const char* service_name);

}  // namespace kzq
