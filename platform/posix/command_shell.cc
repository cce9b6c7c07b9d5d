#include "platform/command_shell.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/clock.h"

namespace platform {

namespace {

// Starts `path` (looked up on PATH when it has no '/') in a group of its
// own, so that a command that runs too long is ended with everything it
// started, and its output and errors into the file.
int Spawn(const char* path, const std::vector<std::string>& words, const std::string& output_file, pid_t* child) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const int rc = strchr(path, '/') != nullptr ? posix_spawn(child, path, &actions, &attributes, argv.data(), environ)
                                              : posix_spawnp(child, path, &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return rc;
}

int WaitFor(pid_t child, int* error, uint32_t timeout_ms) {
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

}  // namespace

int RunCommand(const std::string& program, const std::vector<std::string>& arguments, const std::string& output_file,
               int* error, uint32_t timeout_ms) {
  fflush(nullptr);
  *error = 0;
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  pid_t child = 0;
  int spawned = Spawn(program.c_str(), words, output_file, &child);
  // A script without an interpreter line is the shell's, as execvp has it.
  if (spawned == ENOEXEC) {
    words.insert(words.begin(), "sh");
    spawned = Spawn("/bin/sh", words, output_file, &child);
  }
  if (spawned != 0) {
    *error = spawned;
    return -1;
  }
  return WaitFor(child, error, timeout_ms);
}

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : status;
}

// Redirection, pipes and lists, expansions, quoting and file-name
// patterns: /bin/sh would change all of them in a script's arguments.
const char* ShellSpecialCharacters() { return "()<>|&;$`\\\"'*?[#~\n"; }

}  // namespace platform
