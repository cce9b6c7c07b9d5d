#include "platform/environment.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace platform {

std::optional<std::string> GetEnv(const char* name) {
  const char* value = getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

bool SetEnv(const char* name, const std::string& value) {
  if (value.empty()) return unsetenv(name) == 0;
  return setenv(name, value.c_str(), 1) == 0;
}

bool PutEnvPair(char* pair) { return putenv(pair) == 0; }

std::string ExpandEnvironmentText(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const size_t open = text.find('%', i);
    const size_t close = open == std::string::npos ? std::string::npos : text.find('%', open + 1);
    if (close == std::string::npos) {
      out += text.substr(i);
      break;
    }
    const std::string name = text.substr(open + 1, close - open - 1);
    const char* value = name.empty() ? nullptr : getenv(name.c_str());
    out += text.substr(i, open - i);
    if (value != nullptr) {
      out += value;
      i = close + 1;
    } else {
      out += '%';  // not a variable: keep the '%' and look again from the next one
      i = open + 1;
    }
  }
  return out;
}

std::string CurrentDirectory(int* error) {
  char path[4096];
  if (getcwd(path, sizeof path) == nullptr) {
    *error = errno;
    return {};
  }
  *error = 0;
  return path;
}

std::string FallbackTempDirectory() {
  const char* tmpdir = getenv("TMPDIR");
  return tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
}

std::string MachineSettingsRoot() { return "/etc"; }

}  // namespace platform
