#include "platform/environment.h"

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

}  // namespace platform
