#include "platform/process.h"

#include <sched.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/error.h"
#include "platform/posix/errors.h"

extern char** environ;

namespace platform {
namespace {

class PosixChild final : public ChildProcess {
 public:
  explicit PosixChild(pid_t pid) : pid_(pid) {}
  ~PosixChild() override {
    if (!reaped_) {
      kill(pid_, SIGKILL);
      Wait();
    }
  }

  int Wait() override {
    if (reaped_) return status_;
    int raw = 0;
    while (waitpid(pid_, &raw, 0) < 0)
      if (errno != EINTR) return -1;
    reaped_ = true;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
  }

  uint32_t Id() const override { return static_cast<uint32_t>(pid_); }
  bool Kill() override { return reaped_ || kill(pid_, SIGKILL) == 0; }
  bool RequestStop() override { return !reaped_ && kill(pid_, SIGTERM) == 0; }

 private:
  const pid_t pid_;
  bool reaped_ = false;
  int status_ = -1;
};

}  // namespace

uint32_t CurrentProcessId() { return static_cast<uint32_t>(getpid()); }
uint32_t CurrentThreadId() { return static_cast<uint32_t>(gettid()); }

std::string LocalHostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0) return {};
  name[sizeof name - 1] = '\0';
  return name;
}

std::string ComputerName(int* error) {
  const std::string name = LocalHostName();
  *error = name.empty() ? errno : 0;
  return name;
}

std::string RawCommandLine() {
  FILE* file = fopen("/proc/self/cmdline", "rb");
  if (file == nullptr) return {};
  std::string raw;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, file)) > 0;) raw.append(buffer, n);
  fclose(file);
  std::string line;
  size_t begin = 0;
  for (size_t end; begin < raw.size() && (end = raw.find('\0', begin)) != std::string::npos; begin = end + 1) {
    const std::string arg = raw.substr(begin, end - begin);
    if (!line.empty()) line += ' ';
    line += arg.find_first_of(" \\") == std::string::npos ? arg : '"' + arg + '"';
  }
  return line;
}

std::string ExecutablePath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

std::unique_ptr<ChildProcess> StartProcess(const std::vector<std::string>& argv, int* error,
                                           const ProcessOptions& options) {
  if (argv.empty()) {
    *error = kErrInvalidParameter;
    return nullptr;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!options.output_file.empty()) {
    posix_spawn_file_actions_addopen(&actions, 1, options.output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  }
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    *error = posix::FromErrno(rc);
    return nullptr;
  }
  *error = kOk;
  return std::make_unique<PosixChild>(pid);
}

int PinToCpu(int nth, int* error) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
    *error = errno;
    return -1;
  }
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed) || nth-- > 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
      *error = errno;
      return -1;
    }
    return cpu;
  }
  *error = EINVAL;
  return -1;
}


}  // namespace platform
