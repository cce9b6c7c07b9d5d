// Running a take-action command: the program itself, or for a script its
// interpreter (cmd.exe on Windows, /bin/sh on POSIX).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// Flushes every C stream, then runs `program` with `arguments`, each one
// word that no command interpreter sees, with its standard output and error
// both going to `output_file` (created for this account alone, or
// replaced), and waits for it. A program named without a directory is
// looked up on PATH. A script is run by its interpreter: on POSIX one
// without a "#!" line by /bin/sh; on Windows anything but a program
// (.exe, .com) - a .cmd or .bat - by cmd.exe, which is why arguments that
// hold ShellSpecialCharacters() must not be given here. Returns the status
// (ExitCodeOf tells the exit code); -1 when nothing could run, with *error
// holding errno (0 otherwise). With `timeout_ms` above 0 a command still
// running then is ended with every process it started (its process group
// on POSIX, a job object on Windows): -1 with ETIMEDOUT.
int RunCommand(const std::string& program, const std::vector<std::string>& arguments, const std::string& output_file,
               int* error, uint32_t timeout_ms = 0);

// The exit code of the command in a status RunCommand returned: the code
// it exited with, or 128 + the signal that ended it (POSIX).
int ExitCodeOf(int status);

// Characters that an interpreter would act on when they stand in a
// script's arguments: arguments holding one of them must not be given to
// RunCommand as they are.
const char* ShellSpecialCharacters();

}  // namespace platform
