#include <cstdlib>
#include <string>

#include "platform/file_system.h"
#include "platform/service_probe.h"

namespace platform {

// On Windows the probe asks the service manager, and the file only tells
// an operator which process serves; on POSIX the probe reads it.
std::string PidFilePath(const std::string& service) {
  const char* server = getenv("COLL_SERVERID");
  const std::string suffix = server != nullptr && *server != '\0' ? std::string("_") + server : std::string();
  return RuntimeDirectory() + PathSeparator() + service + suffix + ".pid";
}

}  // namespace platform
