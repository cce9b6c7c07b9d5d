#include "kzq/command_line_presets.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "kvc/agent_config.h"
#include "platform/environment.h"
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

// The first word of the line: a path in double quotes runs to the closing
// quote (quotes kept, as the trace set-up expects them), so an install
// directory with blanks stays one word.
std::string ExecutableWord(const char*& p) {
  const char* begin = p;
  if (*p == '"') {
    const char* close = strchr(p + 1, '"');
    p = close != nullptr ? close + 1 : p + strlen(p);
  }
  while (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) ++p;
  return std::string(begin, p);
}

// The key after ` -Hkey "`, up to and with its closing quote. "-Hkey" is
// matched as written, and only right after the executable.
std::string KeyPart(const char* p) {
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  constexpr const char* kWord = "-Hkey";
  if (strncmp(p, kWord, strlen(kWord)) != 0) return {};
  p += strlen(kWord);
  if (!isspace(static_cast<unsigned char>(*p))) return {};
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  if (*p++ != '"') return {};
  const char* close = strchr(p, '"');
  return close != nullptr ? std::string(p, close + 1) : std::string(p);
}

void Preset(const char* raw_line) {
  if (raw_line == nullptr) Fail("\n Error in GetCommandLine :%d", 0);
  const char* p = raw_line;
  const std::string exe = ExecutableWord(p);
  const std::string key = KeyPart(p);
  const size_t key_slash = key.rfind('\\');
  if (key_slash == std::string::npos) Fail("\n Error in finding Server ID from s_hkeypart :%s", key.c_str());
  std::string server = key.substr(key_slash + 1);
  if (!server.empty()) server.pop_back();
  kvc::PutEnvPair("COLL_SERVERID", server.c_str());
  const size_t exe_slash = exe.rfind(platform::PathSeparator());
  if (exe_slash == std::string::npos) Fail("\n Error in finding TAVRA_LOG_PATH from s_exepath :%s", exe.c_str());
  // A trace directory the service definition names wins over the one
  // beside the executable, which a service may not write.
  const auto inherited = platform::GetEnv("TAVRA_LOG_PATH");
  if (!inherited.has_value() || inherited->empty())
    kvc::PutEnvPair("TAVRA_LOG_PATH", (exe.substr(0, exe_slash + 1) + "LOGS").c_str());
  int error = 0;
  const std::string computer = platform::ComputerName(&error);
  if (computer.empty())
    Fail("\n Error in finding Hostname. GetComputerName failed with errorcode: %ld", static_cast<long>(error));
  kvc::PutEnvPair("COLL_HOSTNAME", computer.c_str());
}

void WriteErrorFile(const std::string& text) {
  if (FILE* file = fopen(PresetErrorFilePath().c_str(), "w")) {
    fprintf(file, "%s", text.c_str());
    fclose(file);
  }
}

}  // namespace

std::string PresetErrorFilePath() {
  auto dir = platform::GetEnv("KVCLOGDIR");
  if (!dir.has_value() || dir->empty()) dir = platform::GetEnv("TEMP");
  if (!dir.has_value() || dir->empty()) dir = platform::FallbackTempDirectory();
  if (dir->back() != platform::PathSeparator()) dir->push_back(platform::PathSeparator());
  return *dir + kPresetErrorFile;
}

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
