// What the agent tells the framework about itself, and the framework's
// stop switch.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/serve/agent_description.h"

using AgentLoader = int (*)();

// Keeps the loader; kxamain calls it once while it starts.
int AVR_RegisterAgentLoader(AgentLoader loader);
// Fills `buffer` (at least 9 bytes) with the product's version "VV.RR.MM";
// 0, or 1 when the buffer is too small, 2 for an unknown product code.
int AVR_SetVersionUsingProduct(const char* product, char* buffer, int size);
int AVR_SetAffinity(const char* affinity);
int AVR_SetCurrency(int major, int minor);
int AVR_SetHostname(const char* host);
int AVR_SetSubsystemId(const char* subsystem);
int AVR_SetNodeType(const char* node_type);
// Stops the framework: every open table object is closed and whoever waits
// in WaitForShutdown returns. Safe to call more than once.
int AVR_Shutdown(int reason);

// The local host name, cut to `limit` - 1 characters and terminated.
// Returns its length.
int DetermineLocalHost(char* buffer, int limit);

namespace framework {

inline constexpr const char* kProductCode = "ZQ";
inline constexpr const char* kProductVersion = "01.00.00";

struct AgentIdentity {
  std::string version;
  std::vector<std::string> affinities;
  int currency_major = 0;
  int currency_minor = 0;
  std::string host;
  std::string subsystem;
  std::string node_type;
};

AgentIdentity Identity();
AgentLoader RegisteredLoader();
// The agent's loader describes the agent once, typed; kxamain hands the
// description to what serves consumers. Any thread.
void DescribeAgent(AgentDescription description);
// What the loader described; an empty description before.
std::shared_ptr<const AgentDescription> DescribedAgent();
bool ShutdownRequested();
// Blocks until AVR_Shutdown has been called.
void WaitForShutdown();

}  // namespace framework
