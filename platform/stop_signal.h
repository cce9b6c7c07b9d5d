// Stop requests to a console program: Ctrl-C, Ctrl-Break and closing the
// console on Windows; SIGINT and SIGTERM on POSIX.
#pragma once

namespace platform {

// Calls `stop` (on a thread of its own, never inside a signal handler) for
// each stop request. Install once.
void InstallStopHandler(void (*stop)());

// Calls `reload` (on a thread of its own) for each SIGHUP on POSIX; a
// Windows console has no such request, so there it does nothing. Install
// before any other thread starts.
void InstallReloadHandler(void (*reload)());

}  // namespace platform
