// The service side of a kzq process: the dispatcher hand-over, the service
// entry that runs the process's work on a worker thread, the control
// handler (stop, pause, continue) and the status reports.
#pragma once

#include <cstdint>

namespace kzq {

// The name the dispatcher table carries; the service manager selects the
// service by its own registration, not by this name.
inline constexpr const char* kServiceName = "kzqsrv";

// What the worker thread runs, with the arguments `main` was given.
using ServiceWork = int (*)(int argc, char** argv);

// Hands the process to the service dispatcher. Returns 0 once the service
// has stopped. When the dispatcher cannot start (not started by a service
// manager) it writes two lines to standard output and ends the process
// with the error number.
int RunAsService(int argc, char** argv, ServiceWork work, void (*stop_hook)());

// The status report every state change goes through: controls are refused
// while starting, and a non-zero specific code makes the exit code 1066.
bool ReportServiceStatus(uint32_t state, uint32_t win32_exit_code, uint32_t specific_exit_code,
                         uint32_t check_point, uint32_t wait_hint);

}  // namespace kzq
