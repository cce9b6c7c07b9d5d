#include "platform/command_shell.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace platform {

namespace {

// A path as one word of cmd.exe's line.
std::string QuotedPath(const std::string& path) {
  return path.find_first_of(" \t&()^%") == std::string::npos ? path : "\"" + path + "\"";
}

// One argument as the C runtime's parser reads it back: quoted when it
// holds a blank or a quote, backslashes doubled before a quote.
std::string QuotedArgument(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos) return word;
  std::string out = "\"";
  size_t backslashes = 0;
  for (const char c : word) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  return out.append(backslashes * 2, '\\') + "\"";
}

// The program file a name stands for, as CreateProcess would find it: as
// given with a directory, else on the search path; with ".exe" added when
// it has no extension. Empty when there is no such program.
std::string ProgramFile(const std::string& program) {
  char found[MAX_PATH];
  char* file_part = nullptr;
  for (const char* extension : {".exe", ".com"}) {
    const DWORD n = SearchPathA(nullptr, program.c_str(), extension, sizeof found, found, &file_part);
    if (n == 0 || n >= sizeof found) continue;
    const std::string path = found;
    const std::string tail = path.size() >= 4 ? path.substr(path.size() - 4) : "";
    if (_stricmp(tail.c_str(), ".exe") == 0 || _stricmp(tail.c_str(), ".com") == 0) return path;
  }
  return {};
}

// Closing the job ends every process still in it.
HANDLE KillingJob() {
  HANDLE job = CreateJobObjectA(nullptr, nullptr);
  if (job == nullptr) return nullptr;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

// Runs the command line, its output and errors into `output` when it is a
// handle; the process and what it starts run in a job, so a command that
// runs too long is ended whole.
int RunLine(const char* application, const std::string& text, HANDLE output, int* error, uint32_t timeout_ms) {
  std::vector<char> command(text.begin(), text.end());
  command.push_back('\0');
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  if (output != INVALID_HANDLE_VALUE) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output;
    startup.hStdError = output;
  }
  PROCESS_INFORMATION process = {};
  if (!CreateProcessA(application, command.data(), nullptr, nullptr, output != INVALID_HANDLE_VALUE,
                      CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup, &process)) {
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

// A script through "%ComSpec% /c", with cmd.exe's own redirections. The
// line is quoted once more: "cmd /c" takes away the first and the last
// quote of a line that begins with one, which would otherwise be the quotes
// of a quoted command path. Wine's cmd.exe ignores redirections that
// follow a block, so there is none.
int RunScript(const std::string& program, const std::vector<std::string>& arguments, const std::string& output_file,
              int* error, uint32_t timeout_ms) {
  char shell[MAX_PATH];
  const DWORD n = GetEnvironmentVariableA("ComSpec", shell, sizeof shell);
  const std::string interpreter = n > 0 && n < sizeof shell ? shell : "cmd.exe";
  std::string line = QuotedPath(program);
  for (const std::string& word : arguments) line += " " + QuotedPath(word);
  const std::string text = "\"" + interpreter + "\" /c \"" + line + " 2>" + QuotedPath(output_file) + " 1>&2\"";
  return RunLine(nullptr, text, INVALID_HANDLE_VALUE, error, timeout_ms);
}

}  // namespace

int RunCommand(const std::string& program, const std::vector<std::string>& arguments, const std::string& output_file,
               int* error, uint32_t timeout_ms) {
  fflush(nullptr);
  *error = 0;
  const std::string file = ProgramFile(program);
  if (file.empty()) return RunScript(program, arguments, output_file, error, timeout_ms);
  SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
  HANDLE output = CreateFileA(output_file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  if (output == INVALID_HANDLE_VALUE) {
    *error = EACCES;
    return -1;
  }
  std::string line = QuotedArgument(file);
  for (const std::string& word : arguments) line += " " + QuotedArgument(word);
  const int status = RunLine(file.c_str(), line, output, error, timeout_ms);
  CloseHandle(output);
  return status;
}

int ExitCodeOf(int status) { return status; }

// The closing parenthesis (kept off the line whatever the platform),
// redirection, pipes, command separators, the escape character, and the
// percent sign, which would expand a variable (a password, say).
const char* ShellSpecialCharacters() { return ")<>|&^%!\n"; }

}  // namespace platform
