// kzqagent: the agent process. "-console" runs it as a console program;
// otherwise it is handed to the service dispatcher. "-hkey <key>" names
// the registry key whose Environment values configure it. "--help" ("-h")
// and "--version" answer and end before anything starts.
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
#include "kzq/instance_settings.h"
#include "kzq/settings_reload.h"
#include "kzq/service_control.h"
#include "kzq/trace_log_setup.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/stop_signal.h"

namespace {

// Runs before main: the presets must be in the environment before the
// registry and the configuration are read.
const kzq::CommandLinePresets g_command_line_presets;

// Loaded first thing in main; read again by each reload. Never destroyed:
// a reload may come while the process ends.
kzq::InstanceSettings* g_settings = nullptr;
kzq::SettingsReload* g_reload = nullptr;

void ReloadAgent() {
  if (g_reload != nullptr) g_reload->Reload();
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

constexpr const char* kUsage =
    "usage: kzqagent -console [option words]   run in this terminal until Ctrl-C or SIGTERM\n"
    "       kzqagent [option words]            run as a service (started by the service manager)\n"
    "       kzqagent --check-config [-Hkey \"<key>\"]  print every setting, its value and where it came from\n"
    "       kzqagent --help | -h | --version\n"
    "Option words override the environment; three letters of a keyword are enough:\n"
    "  -serverid -logonid (-loginid) -password -ctldir -logsdir -errlog -ltempdir -tempdir\n"
    "  -maxread -dbhome -dbversion -initfile -version -debug   each followed by its value\n"
    "  -rdbms -dbtype <value>   accepted, not used\n"
    "  -filein <file>           further option words from a file\n"
    "  -hkey <key>              import the Environment values of this registry key\n"
    "  -Hkey \"<key>\"            right after the program: the service installation's instance key\n"
    "Settings come from the registry key, the environment and /etc/kzq/<server id>.conf\n"
    "(COLL_*, KZQ_*); SIGHUP reloads the interval, the alert severity and the token.\n"
    "The HTTP endpoint listens on $KZQ_HTTP_LISTEN (127.0.0.1:19433). Read it with kzqctl (kzqctl --help).\n";

// True after answering a request for help or the version: those words
// start nothing. "-version" (one dash) stays the option word it is.
bool AnsweredHelpOrVersion(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") return fputs(kUsage, stdout), true;
    if (word == "--version") return printf("kzqagent %s\n", KZQ_VERSION), true;
  }
  return false;
}

// Console Ctrl-C and the service's stop alike: kxamain returns and the
// agent's work ends before the exit routine shuts the channel.
void StopAgent() { AVR_Shutdown(1); }

int AgentMain(int argc, char** argv) {
  if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("Entering AgentMain\n");
  kvc::ReadAgentEnvironment(kvc::TheAgentConfig());
  kzq::OpenInstanceLog("kzqagent", g_command_line_presets);
  kzq::LogSettings(*g_settings);
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

bool HasWord(int argc, char** argv, const char* word) {
  for (int i = 1; i < argc; ++i)
    if (strcmp(argv[i], word) == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (AnsweredHelpOrVersion(argc, argv)) return 0;
  g_settings = new kzq::InstanceSettings(kzq::RegistryKeyArgument(argc, argv), g_command_line_presets.values());
  if (HasWord(argc, argv, "--check-config")) return kzq::PrintSettingsReport(*g_settings, stdout) ? 0 : 1;
  g_reload = new kzq::SettingsReload(*g_settings);
  bool console = false;
  // Only the first of the two words counts: "-hkey" before "-console" means
  // a service, as it always has.
  for (int i = 0; i < argc; ++i) {
    if (kzq::SameWord(argv[i], "-console")) {
      console = true;
      break;
    }
    if (kzq::SameWord(argv[i], "-hkey")) break;
  }
  if (!console) return kzq::RunAsService(argc, argv, AgentMain, StopAgent, ReloadAgent);
  kvc::SetChannelConsoleMode(true);
  platform::InstallStopHandler(StopAgent);
  platform::InstallReloadHandler(ReloadAgent);
  return AgentMain(argc, argv);
}
