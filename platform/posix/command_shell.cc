#include "platform/command_shell.h"

#include <sys/wait.h>

namespace platform {

std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return "(" + command + ") 2>" + QuotedPath(output_file) + " 1>&2";
}

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : status;
}

// In single quotes nothing is special but the quote itself, which ends the
// quoted part, stands escaped, and starts the next.
std::string QuotedPath(const std::string& path) {
  if (path.find_first_of(std::string(" \t") + ShellSpecialCharacters()) == std::string::npos) return path;
  std::string quoted = "'";
  for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The group's parentheses, redirection, pipes and lists, expansions,
// quoting and file-name patterns: /bin/sh would change all of them.
const char* ShellSpecialCharacters() { return "()<>|&;$`\\\"'*?[#~\n"; }

}  // namespace platform
