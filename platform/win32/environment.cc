#include "platform/environment.h"

#include <windows.h>

#include <cstdlib>

namespace platform {

std::optional<std::string> GetEnv(const char* name) {
  const char* value = getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

// _putenv_s updates both the C runtime's copy (getenv) and the process's
// (children); an empty value removes the variable.
bool SetEnv(const char* name, const std::string& value) {
  return _putenv_s(name, value.c_str()) == 0;
}

bool PutEnvPair(char* pair) { return _putenv(pair) == 0; }

std::string ExpandEnvironmentText(const std::string& text) {
  char expanded[2048];
  const DWORD n = ExpandEnvironmentStringsA(text.c_str(), expanded, sizeof expanded);
  return n > 0 && n <= sizeof expanded ? std::string(expanded) : text;
}

std::string CurrentDirectory(int* error) {
  char path[MAX_PATH + 1];
  const DWORD n = GetCurrentDirectoryA(sizeof path, path);
  if (n == 0 || n >= sizeof path) {
    *error = static_cast<int>(GetLastError());
    return {};
  }
  *error = 0;
  return std::string(path, n);
}

std::string FallbackTempDirectory() {
  const char* drive = getenv("SystemDrive");
  return std::string(drive != nullptr ? drive : "") + "\\";
}

std::string MachineSettingsRoot() {
  const char* data = getenv("ProgramData");
  return data != nullptr && *data != '\0' ? data : "C:\\ProgramData";
}

}  // namespace platform
