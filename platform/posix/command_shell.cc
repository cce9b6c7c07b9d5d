#include "platform/command_shell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace platform {

int RunShellCommand(const std::string& line, int* error) {
  fflush(nullptr);
  errno = 0;
  const int status = system(line.c_str());
  *error = status == -1 ? errno : 0;
  return status;
}

std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return "(" + command + ") 2>" + output_file + " 1>&2";
}

// The group's parentheses, redirection, pipes and lists, expansions,
// quoting and file-name patterns: /bin/sh would change all of them.
const char* ShellSpecialCharacters() { return "()<>|&;$`\\\"'*?[#~\n"; }

}  // namespace platform
