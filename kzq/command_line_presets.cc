#include "kzq/command_line_presets.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "kvc/kvcenv.h"
#include "platform/file_system.h"
#include "platform/process.h"

namespace kzq {
namespace {

// The one place that raises: each step's failure ends the presets.
struct PresetError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <typename... Args>
[[noreturn]] void Fail(const char* format, Args... args) {
  char text[4096];
  snprintf(text, sizeof text, format, args...);
  throw PresetError(text);
}

void Preset(const char* raw_line) {
  if (raw_line == nullptr) Fail("\n Error in GetCommandLine :%d", 0);
  const size_t size = strlen(raw_line) + 1;
  std::vector<char> exe(size, '\0'), key(size, '\0');
  // "-Hkey" is matched as written, and the key keeps its closing quote:
  // the last conversion stops only at white space.
  sscanf(raw_line, "%s -Hkey \"%s\"", exe.data(), key.data());
  const char* key_slash = strrchr(key.data(), '\\');
  if (key_slash == nullptr) Fail("\n Error in finding Server ID from s_hkeypart :%s", key.data());
  std::string server(key_slash + 1);
  if (!server.empty()) server.pop_back();
  kvc::PutEnvPair("COLL_SERVERID", server.c_str());
  const char* exe_slash = strrchr(exe.data(), platform::PathSeparator());
  if (exe_slash == nullptr) Fail("\n Error in finding TAVRA_LOG_PATH from s_exepath :%s", exe.data());
  const std::string logs = std::string(exe.data(), static_cast<size_t>(exe_slash - exe.data() + 1)) + "LOGS";
  kvc::PutEnvPair("TAVRA_LOG_PATH", logs.c_str());
  int error = 0;
  const std::string computer = platform::ComputerName(&error);
  if (computer.empty())
    Fail("\n Error in finding Hostname. GetComputerName failed with errorcode: %ld", static_cast<long>(error));
  kvc::PutEnvPair("COLL_HOSTNAME", computer.c_str());
}

void WriteErrorFile(const std::string& text) {
  if (FILE* file = fopen(kPresetErrorFile, "w")) {
    fprintf(file, "%s", text.c_str());
    fclose(file);
  }
}

}  // namespace

std::string ApplyCommandLinePresets(const char* raw_line) {
  std::string text;
  try {
    Preset(raw_line);
  } catch (const PresetError& e) {
    text = e.what();
  } catch (...) {
    text = "Some unknown error ocured. Catched in global catch";
  }
  if (!text.empty()) WriteErrorFile(text);
  return text;
}

}  // namespace kzq
