// The platform's service manager as the tests drive it: systemd's part
// played by the test itself on POSIX (a notification socket and signals),
// the real service control manager through sc.exe on Windows.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kzq_test {

class ServiceManager {
 public:
  enum State { kRunning, kPaused, kStopping, kStopped };

  // `work_dir` holds the manager's files (socket, command output).
  static std::unique_ptr<ServiceManager> Create(const std::string& work_dir);
  virtual ~ServiceManager() = default;

  // Installs `program` with `args` as a service and starts it.
  virtual bool Start(const std::string& program, const std::vector<std::string>& args) = 0;
  // Whether this manager can send pause and continue to the service.
  virtual bool CanPause() const = 0;
  virtual bool Pause() = 0;
  virtual bool Continue() = 0;
  virtual bool Stop() = 0;
  // The parameter-change control (systemctl reload sends SIGHUP).
  virtual bool Reload() = 0;
  // Waits until the service has reported `state`.
  virtual bool WaitFor(State state, int timeout_ms = 30000) = 0;
  // The exit code the stopped service left.
  virtual int ExitCode() = 0;
  // What the manager has seen, for failure messages.
  virtual std::string Log() const = 0;
};

}  // namespace kzq_test
