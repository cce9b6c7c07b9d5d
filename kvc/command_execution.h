// Running an operating-system command for a take-action request: the
// command runs as a program of its own (a script by its interpreter), its
// arguments never interpreted, with its output and errors redirected into a
// temporary file, and what it printed comes back as a chain of lines.
#pragma once

#include <cstdint>
#include <string>

namespace kvc {

// One output line. Nodes come from tracked memory with room for the text.
struct r_exec_chain {
  r_exec_chain* next;
  int32_t length;  // of the text, trailing white space removed
  char text[1];    // NUL-terminated, `length` characters
};

// Runs `command` with `parms` and returns its output lines, or null when it
// could not be run or printed nothing. Settings: COLL_BINPATH (the
// directory a plain command name is taken from), COLL_HOME, COLL_PREFIX and
// COLL_SERVERID (the temporary directory <home>/tmp/<prefix>/<server id>),
// COLL_TMPFILE_DEL_INTERVAL. Free the chain with free_exec_chain. With
// `exit_code`, the command's exit code is stored there (-1 when it could
// not be run or was refused).
r_exec_chain* u_exec(const char* command, const char* parms, int* exit_code = nullptr);

// Frees every node of a chain; null is allowed.
void free_exec_chain(r_exec_chain* head);

// Where and how u_exec works; u_exec takes them from the agent's
// configuration on each call.
struct ExecPlaces {
  std::string home;
  std::string prefix;  // the agent's file prefix, one name: "kzq" keeps its files
  std::string server_id;
  std::string bin_path;
  int delete_interval_minutes = 2;
  int timeout_seconds = 120;  // COLL_ACTION_TIMEOUT: a command still running then is ended; 0 none
};

ExecPlaces CurrentExecPlaces();

// u_exec with the given places.
r_exec_chain* u_exec_in(const ExecPlaces& places, const char* command, const char* parms,
                        int* exit_code = nullptr);

}  // namespace kvc
