// Stop requests to a console program: Ctrl-C, Ctrl-Break and closing the
// console on Windows; SIGINT and SIGTERM on POSIX.
#pragma once

namespace platform {

// Calls `stop` (on a thread of its own, never inside a signal handler) for
// each stop request. Install once.
void InstallStopHandler(void (*stop)());

}  // namespace platform
