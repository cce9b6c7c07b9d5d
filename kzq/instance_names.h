// The names one instance's programs meet by: the agent's probe and the
// collector agree on the collector's service name, and both take the
// server id and the service number from the same settings (the instance's
// registry key, its environment file, the command line).
#pragma once

#include <string>

namespace kzq {

// KZQCOLL<COLL_SERVICENUMBER>; the number defaults to 0 in every program.
std::string CollectorServiceName();

// kzqagent_<COLL_SERVERID>: the agent's service as the Windows installer
// names it.
std::string AgentServiceName();

// MSSQL$<COLL_SERVERID> for a named instance (KZQ_NAMED_INSTANCE non-zero),
// else MSSQLSERVER.
std::string DatabaseServiceName();

}  // namespace kzq
