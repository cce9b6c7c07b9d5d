#include "platform/command_shell.h"

#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>

#include "platform/clock.h"

namespace platform {

std::string RedirectedCommandLine(const std::string& command, const std::string& output_file) {
  return "(" + command + ") 2>" + QuotedPath(output_file) + " 1>&2";
}

int RunShellCommand(const std::string& line, int* error, uint32_t timeout_ms) {
  fflush(nullptr);
  *error = 0;
  // A group of its own, so that a command that runs too long is ended with
  // everything it started.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  char sh[] = "sh", dash_c[] = "-c";
  char* argv[] = {sh, dash_c, const_cast<char*>(line.c_str()), nullptr};
  pid_t child = 0;
  const int spawned = posix_spawn(&child, "/bin/sh", nullptr, &attributes, argv, environ);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    *error = spawned;
    return -1;
  }
  const uint64_t deadline = MonotonicMillis() + timeout_ms;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(child, &status, timeout_ms == 0 ? 0 : WNOHANG);
    if (done == child) return status;
    if (done < 0 && errno != EINTR) {
      *error = errno;
      return -1;
    }
    if (timeout_ms != 0 && MonotonicMillis() >= deadline) {
      kill(-child, SIGKILL);
      waitpid(child, &status, 0);
      *error = ETIMEDOUT;
      return -1;
    }
    if (done == 0) SleepMillis(10);
  }
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
