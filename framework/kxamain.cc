#include "framework/kxamain.h"

#include "framework/agent.h"
#include "framework/table_manager.h"
#include "framework/trace.h"

int kxamain(int, char**) {
  if (AgentLoader loader = framework::RegisteredLoader()) loader();
  // One line per start, whatever the trace level: it tells an operator
  // reading the trace what the agent came up with.
  TRC1_Printf("Agent started with %d tables\n", static_cast<int>(framework::TableManager::Registered().size()));
  TRC1_Sync();
  framework::WaitForShutdown();
  TRC1_Sync();
  return 0;
}
