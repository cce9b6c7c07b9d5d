// Running a command line through the system's command interpreter: cmd.exe
// on Windows, /bin/sh on POSIX.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// Flushes every C stream, then runs `line` through the interpreter and
// waits for it, as the C library's `system` does, and returns its status
// (ExitCodeOf tells the exit code). -1 when the interpreter could not be
// run, with *error holding errno (0 otherwise). With `timeout_ms` above 0 a
// command still running then is ended with every process it started (its
// process group on POSIX, a job object on Windows): -1 with ETIMEDOUT.
int RunShellCommand(const std::string& line, int* error, uint32_t timeout_ms = 0);

// The exit code of the command in a status RunShellCommand returned: the
// code it exited with, or 128 + the signal that ended it (POSIX).
int ExitCodeOf(int status);

// The line that runs `command` (with its arguments) with its standard
// output and error both going to `output_file`: "(command) 2>out 1>&2".
std::string RedirectedCommandLine(const std::string& command, const std::string& output_file);

// A path as one word of the interpreter's line: quoted when it holds a
// blank or a character the interpreter would act on, so a directory such
// as "C:\Program Files\kzq" stays one word.
std::string QuotedPath(const std::string& path);

// Characters that the interpreter would act on when they stand in the
// arguments of "(cmd args)": arguments holding one of them must not be put
// on the line as they are.
const char* ShellSpecialCharacters();

}  // namespace platform
