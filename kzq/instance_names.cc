#include "kzq/instance_names.h"

#include <cstdlib>

#include "platform/environment.h"

namespace kzq {
namespace {

std::string Env(const char* name) { return platform::GetEnv(name).value_or(""); }

}  // namespace

std::string CollectorServiceName() { return "KZQCOLL" + std::to_string(atoi(Env("COLL_SERVICENUMBER").c_str())); }

std::string AgentServiceName() { return "kzqagent_" + Env("COLL_SERVERID"); }

std::string DatabaseServiceName() {
  return atoi(Env("KZQ_NAMED_INSTANCE").c_str()) != 0 ? "MSSQL$" + Env("COLL_SERVERID") : "MSSQLSERVER";
}

}  // namespace kzq
