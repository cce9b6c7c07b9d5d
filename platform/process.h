// Process and thread identity, and child processes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform {

// Pins the calling process to the `nth` (from 0) of the CPUs it may run on;
// children started afterwards inherit the placement (benchmarks place both
// ends of an exchange with it). Call it while the process has one thread.
// Returns that CPU's number, or -1 with the OS error in *error.
int PinToCpu(int nth, int* error);
uint32_t CurrentProcessId();
uint32_t CurrentThreadId();

// This machine's host name (empty when the OS will not say).
std::string LocalHostName();

// The computer's own name as the start-up presets record it: the NetBIOS
// name on Windows, the host name on POSIX. *error is the OS error when
// there is none.
std::string ComputerName(int* error);

// The process's command line as one text. POSIX has only the argument
// vector: the arguments are joined by blanks, and one holding a blank or a
// backslash is put in double quotes, as Windows services receive them.
std::string RawCommandLine();

// Full path of the running executable.
std::string ExecutablePath();

class ChildProcess {
 public:
  virtual ~ChildProcess() = default;
  virtual uint32_t Id() const = 0;
  // Waits for the child to end; returns its exit code (128 + signal on
  // POSIX when it was killed), or -1 on failure.
  virtual int Wait() = 0;
  // Ends the child at once, without letting it clean up.
  virtual bool Kill() = 0;
  // Asks the child to stop as an operator would: SIGTERM on POSIX,
  // Ctrl-Break to its own console process group on Windows.
  virtual bool RequestStop() = 0;
};

struct ProcessOptions {
  // When set, the child's standard output and error go to this file
  // (created or truncated).
  std::string output_file;
};

// Starts `argv[0]` with the given arguments, inheriting the environment.
// nullptr with *error set when it cannot be started.
std::unique_ptr<ChildProcess> StartProcess(const std::vector<std::string>& argv, int* error,
                                           const ProcessOptions& options = {});

}  // namespace platform
