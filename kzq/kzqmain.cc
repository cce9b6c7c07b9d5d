// kzqagent: the agent process. "-console" runs it as a console program;
// otherwise it is handed to the service dispatcher. "-hkey <key>" names
// the registry key whose Environment values configure it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "framework/agent.h"
#include "framework/bsv1.h"
#include "framework/kxamain.h"
#include "framework/trace.h"
#include "kvc/channel_entry.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/agent_config.h"
#include "kvc/diagnostic_log.h"
#include "kzq/agent_loader.h"
#include "kzq/instance_start.h"
#include "kzq/option_words.h"
#include "kzq/registry_environment.h"
#include "kzq/service_control.h"
#include "kzq/trace_log_setup.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/stop_signal.h"

namespace {

// Runs before main: the presets must be in the environment before the
// registry and the configuration are read.
const kzq::CommandLinePresets g_command_line_presets;

void ApplyHkeyArgument(int argc, char** argv) {
  kzq::ImportHkeyArgument(argc, argv);
  kvc::ReadAgentEnvironment(kvc::TheAgentConfig());
}

// COLL_BINPATH goes at the end of PATH, so the system's commands win.
void ExtendPath() {
  const auto bin = platform::GetEnv("COLL_BINPATH");
  if (!bin.has_value() || bin->empty()) return;
  const auto path = platform::GetEnv("PATH");
  const std::string list = path.has_value() ? *path + platform::PathListSeparator() + *bin : *bin;
  BSV1_PutEnv(("PATH=" + list).c_str());
}

void AtExitQuit() {
  kvc::Log('i', "ctc5005", "atexit routine envoked Quitting.\n");
  KVCCOMM("shut", nullptr);
  AVR_Shutdown(1);
}

// Console Ctrl-C and the service's stop alike: kxamain returns and the
// agent's work ends before the exit routine shuts the channel.
void StopAgent() { AVR_Shutdown(1); }

int AgentMain(int argc, char** argv) {
  if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("Entering AgentMain\n");
  ApplyHkeyArgument(argc, argv);
  kzq::OpenInstanceLog("kzqagent", g_command_line_presets);
  std::vector<std::string> words(argv + 1, argv + argc);
  kzq::ApplyOptionWords(words, kvc::TheAgentConfig(), kzq::ReadOptionFile);
  char version[9] = {};
  if (AVR_SetVersionUsingProduct("ZQ", version, sizeof version) != 0)
    kvc::Log('e', "ctc5006", "Error setting product version.\n");
  AVR_RegisterAgentLoader(kzq::AgentLoader);
  kzq::SetupTraceLog("KZQENV");
  framework::StartTraceFromEnvironment("kzqagent");
  ExtendPath();
  atexit(AtExitQuit);
  KVCCOMM("initsm");
  const int result = kxamain(argc, argv);
  AVR_Shutdown(1);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  bool console = false;
  // Only the first of the two words counts: "-hkey" before "-console" means
  // a service, as it always has.
  for (int i = 0; i < argc; ++i) {
    if (kzq::SameWord(argv[i], "-console")) {
      console = true;
      break;
    }
    if (kzq::SameWord(argv[i], "-hkey")) {
      if (i + 1 < argc) kzq::ImportRegistryEnvironment(argv[i + 1]);
      break;
    }
  }
  if (!console) return kzq::RunAsService(argc, argv, AgentMain, StopAgent);
  kvc::SetChannelConsoleMode(true);
  platform::InstallStopHandler(StopAgent);
  return AgentMain(argc, argv);
}
