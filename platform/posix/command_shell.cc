#include "platform/command_shell.h"

namespace platform {

std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return "(" + command + ") 2>" + output_file + " 1>&2";
}

// The group's parentheses, redirection, pipes and lists, expansions,
// quoting and file-name patterns: /bin/sh would change all of them.
const char* ShellSpecialCharacters() { return "()<>|&;$`\\\"'*?[#~\n"; }

}  // namespace platform
