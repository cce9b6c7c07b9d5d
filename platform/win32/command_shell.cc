#include "platform/command_shell.h"

namespace platform {

// Without the parentheses: cmd.exe applies the redirections to the whole
// command either way, since no argument it would act on stands on the
// line, and Wine's cmd.exe ignores redirections that follow a block. The
// whole line is quoted once more: "cmd /c" takes away the first and the
// last quote of a line that begins with one, which would otherwise be the
// quotes of a quoted command path.
std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return "\"" + command + " 2>" + QuotedPath(output_file) + " 1>&2\"";
}

int ExitCodeOf(int status) { return status; }

std::string QuotedPath(const std::string& path) {
  return path.find_first_of(" \t&()^%") == std::string::npos ? path : "\"" + path + "\"";
}

// The closing parenthesis (kept off the line whatever the platform),
// redirection, pipes, command separators, the escape character, and the
// percent sign, which would expand a variable (a password, say).
const char* ShellSpecialCharacters() { return ")<>|&^%!\n"; }

}  // namespace platform
