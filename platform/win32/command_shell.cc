#include "platform/command_shell.h"

namespace platform {

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
