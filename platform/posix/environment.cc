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

}  // namespace platform
