// The framework's main loop: runs the registered agent loader once, then
// serves until AVR_Shutdown.
#pragma once

#include "framework/serve/agent_description.h"

int kxamain(int argc, char** argv);

namespace framework {

// Applies settings a reload changed: KZQ_SAMPLE_INTERVAL to the scheduler,
// the rest to the agent (AgentDescription::apply_settings). Any thread;
// before the framework serves, nothing is applied.
void ApplyReloadedSettings(const SettingValues& values);

}  // namespace framework
