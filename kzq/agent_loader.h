// What the framework calls once while it starts: the agent declares
// itself and registers its 33 tables.
#pragma once

#include <cstdint>

namespace kzq {

// Always 0.
int AgentLoader();

// Registers every table's manager in the agent's fixed order (which is not
// the catalogue's) and makes kvcaction their take-action handler. The results are not checked, as a table that fails to
// register simply stays unknown.
void RegisterAllTables();

// When AgentLoader ran (seconds since 1970), 0 before.
int64_t AgentStartTime();
// Records the agent's start; AgentLoader calls it, tests move it.
void SetAgentStartTime(int64_t seconds);

}  // namespace kzq
