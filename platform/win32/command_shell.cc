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

// Without the parentheses: cmd.exe applies the redirections to the whole
// command either way, since no argument it would act on stands on the
// line, and Wine's cmd.exe ignores redirections that follow a block.
std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return command + " 2>" + output_file + " 1>&2";
}

// The closing parenthesis (kept off the line whatever the platform),
// redirection, pipes, command separators and the escape character.
const char* ShellSpecialCharacters() { return ")<>|&^\n"; }

}  // namespace platform
