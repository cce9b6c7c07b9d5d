// The service side of a kzq process: the dispatcher hand-over, the service
// entry that runs the process's work on a worker thread, the control
// handler (stop, shutdown, pause, continue, parameter change) and the status reports.
//
// The service ends with its work: a stop or shutdown calls the stop hook and
// waits (about 20 s at most) for the work to return; work that returns by
// itself ends the service too, a non-zero result being reported as exit
// code 1066 with the result as the service's own code and written to the
// diagnostic log and the system's log. Either way the process then exits
// with the work's result: the exit routines run, the stopped report is the
// last of them, and the process ends at once.
#pragma once

#include <cstdint>

namespace kzq {

// The name the dispatcher table carries; the service manager selects the
// service by its own registration, not by this name.
inline constexpr const char* kServiceName = "kzqsrv";

// What the worker thread runs, with the arguments `main` was given.
using ServiceWork = int (*)(int argc, char** argv);

// Hands the process to the service dispatcher; `stop_hook` asks the work to
// return, `reload_hook` (when not null) takes the parameter-change control
// (both called on the dispatcher's thread). Returns 0 only when the
// service could not even start its work (the failure was reported); a
// service that ran ends the process as said above. When the dispatcher
// cannot start (not started by a service manager) it writes two lines to
// standard output and ends the process with the error number.
int RunAsService(int argc, char** argv, ServiceWork work, void (*stop_hook)(), void (*reload_hook)() = nullptr);

// The status report every state change goes through: controls are refused
// while starting, and a non-zero specific code makes the exit code 1066.
bool ReportServiceStatus(uint32_t state, uint32_t win32_exit_code, uint32_t specific_exit_code,
                         uint32_t check_point, uint32_t wait_hint);

}  // namespace kzq
