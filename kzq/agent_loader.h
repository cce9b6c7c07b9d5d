// What the framework calls once while it starts: the agent declares
// itself and registers its 33 tables.
#pragma once

#include <cstdint>

namespace kzq {

class AgentDataPaths;

// Makes the agent's data paths, kept for the life of the process,
// registers the tables over them and describes the agent to the
// framework. Called once, on the framework's starting thread. Always 0.
int AgentLoader();

// Registers every table's manager in the agent's fixed order (which is not
// the catalogue's): the pushed table with the error events and the
// monitor as its listener, every other table with the collector rows; and
// makes kvcaction their take-action handler. `paths` must outlive the
// managers (the process). The results are not checked, as a table that
// fails to register simply stays unknown.
void RegisterAllTables(AgentDataPaths& paths);

// When AgentLoader ran (seconds since 1970), 0 before.
int64_t AgentStartTime();
// Records the agent's start; AgentLoader calls it, tests move it.
void SetAgentStartTime(int64_t seconds);

}  // namespace kzq
