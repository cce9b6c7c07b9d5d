// The framework's main loop: runs the registered agent loader once, then
// serves until AVR_Shutdown.
#pragma once

#include "framework/serve/agent_description.h"

int kxamain(int argc, char** argv);

namespace framework {

// Applies settings a reload changed: KZQ_SAMPLE_INTERVAL to the scheduler,
// KZQ_HTTP_TOKEN and the users of the web configuration file (read again)
// to the endpoint, the rest to the agent (AgentDescription::apply_settings).
// Any thread; before the framework serves, nothing is applied. Returns why
// the endpoint's access could not be replaced ("" when it could, or was
// unchanged); it then stays as it was.
std::string ApplyReloadedSettings(const SettingValues& values);

}  // namespace framework
