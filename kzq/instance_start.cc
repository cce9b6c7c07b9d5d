#include "kzq/instance_start.h"

#include <cctype>
#include <cstdio>
#include <optional>

#include "kvc/diagnostic_log.h"
#include "kzq/command_line_presets.h"
#include "kzq/instance_names.h"
#include "platform/environment.h"
#include "platform/process.h"

namespace kzq {
namespace {

std::string Env(const char* name) { return platform::GetEnv(name).value_or(""); }

}  // namespace

bool SameWord(const char* a, const char* b) {
  for (; *a != '\0' && *b != '\0'; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

CommandLinePresets::CommandLinePresets() {
  const std::string raw = platform::RawCommandLine();
  constexpr const char* kPresetNames[] = {"COLL_SERVERID", "TAVRA_LOG_PATH", "COLL_HOSTNAME"};
  std::map<std::string, std::optional<std::string>> before;
  for (const char* name : kPresetNames) before[name] = platform::GetEnv(name);
  error_ = ApplyCommandLinePresets(raw.empty() ? nullptr : raw.c_str());
  for (const char* name : kPresetNames) {
    const auto after = platform::GetEnv(name);
    if (after.has_value() && after != before[name]) values_[name] = *after;
  }
  std::string lower = raw;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  keyed_ = lower.find("-hkey") != std::string::npos;
}

bool OpenInstanceLog(const char* program, const CommandLinePresets& presets) {
  kvc::Log('@', program, "%s", "");
  if (kvc::OpenLogFile() != 0) {
    fprintf(stderr, "%s: cannot open col.log in '%s'; diagnostic lines go to the console\n", program,
            Env("KVCLOGDIR").c_str());
    return false;
  }
  kvc::Log('i', "ctc5001", "%s (pid %u) starting for server '%s', collector service %s\n", program,
           platform::CurrentProcessId(), Env("COLL_SERVERID").c_str(), CollectorServiceName().c_str());
  const std::string& error = presets.error();
  const size_t text = error.find_first_not_of(" \n");
  if (presets.keyed() && text != std::string::npos) kvc::Log('w', "ctc5002", "Command line presets failed: %s\n", error.c_str() + text);
  return true;
}

}  // namespace kzq
