#include "platform/command_shell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace platform {

// The C library's system() runs the line through each system's own
// interpreter; only the line's form differs between them.
int RunShellCommand(const std::string& line, int* error) {
  fflush(nullptr);
  errno = 0;
  const int status = system(line.c_str());
  *error = status == -1 ? errno : 0;
  return status;
}

}  // namespace platform
