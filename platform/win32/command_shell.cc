#include "platform/command_shell.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <vector>

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

namespace {

// Closing the job ends every process still in it.
HANDLE KillingJob() {
  HANDLE job = CreateJobObjectA(nullptr, nullptr);
  if (job == nullptr) return nullptr;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

}  // namespace

// As `system` does: "%ComSpec% /c <line>"; the command and what it starts
// run in a job, so a command that runs too long is ended whole.
int RunShellCommand(const std::string& line, int* error, uint32_t timeout_ms) {
  fflush(nullptr);
  *error = 0;
  char shell[MAX_PATH];
  const DWORD n = GetEnvironmentVariableA("ComSpec", shell, sizeof shell);
  const std::string interpreter = n > 0 && n < sizeof shell ? shell : "cmd.exe";
  const std::string text = "\"" + interpreter + "\" /c " + line;
  std::vector<char> command(text.begin(), text.end());
  command.push_back('\0');
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  if (!CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr,
                      nullptr, &startup, &process)) {
    *error = ENOENT;
    return -1;
  }
  HANDLE job = KillingJob();
  if (job != nullptr) AssignProcessToJobObject(job, process.hProcess);
  ResumeThread(process.hThread);
  int status = -1;
  if (WaitForSingleObject(process.hProcess, timeout_ms == 0 ? INFINITE : timeout_ms) == WAIT_OBJECT_0) {
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    status = static_cast<int>(code);
  } else {
    if (job != nullptr) TerminateJobObject(job, 1);
    TerminateProcess(process.hProcess, 1);
    WaitForSingleObject(process.hProcess, 5000);
    *error = ETIMEDOUT;
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  if (job != nullptr) CloseHandle(job);
  return status;
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
