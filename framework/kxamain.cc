#include "framework/kxamain.h"

#include "framework/agent.h"
#include "framework/trace.h"

int kxamain(int, char**) {
  if (AgentLoader loader = framework::RegisteredLoader()) loader();
  framework::WaitForShutdown();
  TRC1_Sync();
  return 0;
}
