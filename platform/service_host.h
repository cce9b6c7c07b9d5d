// Running as a service: the dispatcher that hosts the service's entry, the
// control handler and the status reports to the service manager.
//
// Windows: the service control manager. POSIX: systemd - status reports go
// out through sd_notify (RUNNING = READY, STOP_PENDING = STOPPING, every
// state as STATUS) and the controls arrive as signals: SIGTERM = stop,
// SIGUSR1 = pause, SIGUSR2 = continue, SIGHUP = parameter change. A process that no service manager
// started (no NOTIFY_SOCKET) fails the dispatcher with 1063, as on Windows.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// Service states, as the service manager numbers them.
inline constexpr uint32_t kServiceStopped = 1;
inline constexpr uint32_t kServiceStartPending = 2;
inline constexpr uint32_t kServiceStopPending = 3;
inline constexpr uint32_t kServiceRunning = 4;
inline constexpr uint32_t kServiceContinuePending = 5;
inline constexpr uint32_t kServicePausePending = 6;
inline constexpr uint32_t kServicePaused = 7;

// Controls.
inline constexpr uint32_t kControlStop = 1;
inline constexpr uint32_t kControlPause = 2;
inline constexpr uint32_t kControlContinue = 3;
inline constexpr uint32_t kControlShutdown = 5;
inline constexpr uint32_t kControlParamChange = 6;  // POSIX: SIGHUP

inline constexpr uint32_t kServiceOwnProcess = 16;
inline constexpr uint32_t kAcceptStopAndShutdown = 5;
inline constexpr uint32_t kAcceptParamChange = 8;

struct ServiceStatus {
  uint32_t type = kServiceOwnProcess;
  uint32_t state = 0;
  uint32_t controls_accepted = 0;
  uint32_t win32_exit_code = 0;
  uint32_t specific_exit_code = 0;
  uint32_t check_point = 0;
  uint32_t wait_hint = 0;  // milliseconds
};

using ServiceStatusHandle = void*;
// The entry is handed the name the service manager started the service
// under (Windows: the installed service's name; POSIX: the dispatcher's).
using ServiceEntry = void (*)(const char* service_name);
using ServiceControlHandler = void (*)(uint32_t control);

// Hands the calling thread to the service manager: `entry` runs on a thread
// of its own and controls are delivered to the registered handler. Returns
// true once the entry has returned and the service is stopped; false with
// *error when the dispatcher cannot start (1063: not started as a service).
bool RunServiceDispatcher(const char* name, ServiceEntry entry, int* error);

// Registers the handler of the service's controls; nullptr with *error on
// failure. Call from the service's entry.
ServiceStatusHandle RegisterServiceControlHandler(const char* name, ServiceControlHandler handler,
                                                  int* error);

// Tells the service manager the service's status; false with *error on
// failure (13 for a state the manager does not know).
bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status, int* error);

// Tells the system's own log why the service failed: an error event from
// the source named after the service in the Windows event log. On POSIX
// nothing more: the caller's error line is echoed to standard error, which
// is already what systemd's journal records for the unit.
void ReportServiceFailure(const char* service_name, const std::string& text);

}  // namespace platform
