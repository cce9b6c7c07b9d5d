#include "platform/environment.h"

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

}  // namespace platform
