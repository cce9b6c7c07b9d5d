#include "platform/process.h"

#include <windows.h>

#include "platform/error.h"
#include "platform/win32/errors.h"

namespace platform {
namespace {

class Win32Child final : public ChildProcess {
 public:
  explicit Win32Child(HANDLE process) : process_(process) {}
  ~Win32Child() override {
    TerminateProcess(process_, 1);
    WaitForSingleObject(process_, INFINITE);
    CloseHandle(process_);
  }

  int Wait() override {
    DWORD code = 0;
    if (WaitForSingleObject(process_, INFINITE) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(process_, &code))
      return -1;
    return static_cast<int>(code);
  }

  uint32_t Id() const override { return GetProcessId(process_); }
  bool Kill() override { return TerminateProcess(process_, 137) != 0; }
  bool RequestStop() override { return GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, Id()) != 0; }

 private:
  const HANDLE process_;
};

// Quotes one argument the way the C runtime's parser reads it back.
void AppendQuoted(const std::string& arg, std::string* line) {
  if (!arg.empty() && arg.find_first_of(" \t\"") == std::string::npos) {
    *line += arg;
    return;
  }
  *line += '"';
  size_t backslashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    line->append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    *line += c;
  }
  line->append(backslashes * 2, '\\');
  *line += '"';
}

}  // namespace

uint32_t CurrentProcessId() { return GetCurrentProcessId(); }
uint32_t CurrentThreadId() { return GetCurrentThreadId(); }

std::string LocalHostName() {
  char name[256];
  DWORD size = sizeof name;
  if (!GetComputerNameExA(ComputerNameDnsHostname, name, &size)) return {};
  return std::string(name, size);
}

std::string ComputerName(int* error) {
  char name[32767];
  DWORD size = sizeof name;
  if (!GetComputerNameA(name, &size)) {
    *error = static_cast<int>(GetLastError());
    return {};
  }
  *error = 0;
  return std::string(name, size);
}

std::string RawCommandLine() {
  const char* line = GetCommandLineA();
  return line != nullptr ? line : "";
}

std::string ExecutablePath() {
  char path[MAX_PATH + 1];
  const DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  return n > 0 && n < sizeof path ? std::string(path, n) : std::string();
}

// The output file's handle, inheritable, for the child's standard output
// and error; INVALID_HANDLE_VALUE when there is none.
HANDLE OpenChildOutput(const std::string& path) {
  if (path.empty()) return INVALID_HANDLE_VALUE;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  return CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, CREATE_ALWAYS,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::unique_ptr<ChildProcess> StartProcess(const std::vector<std::string>& argv, int* error,
                                           const ProcessOptions& options) {
  if (argv.empty()) {
    *error = kErrInvalidParameter;
    return nullptr;
  }
  std::string line;
  for (const std::string& arg : argv) {
    if (!line.empty()) line += ' ';
    AppendQuoted(arg, &line);
  }
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  const HANDLE output = OpenChildOutput(options.output_file);
  if (output != INVALID_HANDLE_VALUE) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output;
    startup.hStdError = output;
  }
  PROCESS_INFORMATION info{};
  // A process group of its own, so a stop request reaches the child alone.
  const BOOL started = CreateProcessA(argv[0].c_str(), line.data(), nullptr, nullptr, output != INVALID_HANDLE_VALUE,
                                      CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &info);
  if (!started) *error = win32::LastError();
  if (output != INVALID_HANDLE_VALUE) CloseHandle(output);
  if (!started) return nullptr;
  CloseHandle(info.hThread);
  *error = kOk;
  return std::make_unique<Win32Child>(info.hProcess);
}

int PinToCpu(int nth, int* error) {
  DWORD_PTR allowed = 0, system = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &allowed, &system)) {
    *error = static_cast<int>(GetLastError());
    return -1;
  }
  for (int cpu = 0; cpu < static_cast<int>(sizeof allowed * 8); ++cpu) {
    const DWORD_PTR one = static_cast<DWORD_PTR>(1) << cpu;
    if ((allowed & one) == 0 || nth-- > 0) continue;
    if (!SetProcessAffinityMask(GetCurrentProcess(), one)) {
      *error = static_cast<int>(GetLastError());
      return -1;
    }
    return cpu;
  }
  *error = ERROR_INVALID_PARAMETER;
  return -1;
}


}  // namespace platform
