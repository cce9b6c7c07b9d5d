// Process-wide debug switches and the optional traces of the common code.
#pragma once

#include <cstdint>
#include <string>

namespace kvc {

// Optional traces, each off unless its variable is set to something other
// than "0". Read from the environment on first use.
struct TraceOptions {
  bool trace_detail = false;        // COLL_TRACE_DETAIL: level 'h' lines, time parsing, call sites
  bool length_warning = false;      // COLL_LENGTH_WARN: texts cut at their bound
  bool alloc_trace = false;         // COLL_ALLOC_TRACE: every tracked block checked on free
  bool chain_trace = false;         // COLL_CHAIN_TRACE: chain insertions
  bool chain_remove_trace = false;  // COLL_CHAIN_REMOVE_TRACE: chain removals
  std::string dump_file;            // COLL_MEMDUMP_FILE: where allocation traces go
};

const TraceOptions& Options();

// Reads the options again; for start-up, after the registry has been
// copied into the environment. Not safe while other threads log.
void ReloadOptions();

// The debug word's result: the debug flag, the ten debug levels, and the
// full-debug switch (every level on).
struct DebugSwitches {
  bool debug = false;
  bool full_debug = false;
  uint16_t levels[10] = {};
};

DebugSwitches& Debug();

// Reads a debug word such as "-dde": an optional '-', a first character
// that turns the debug flag on when it is 'd', then one character per
// level: 'd' gives 1, 'e' 2 and so on; anything up to 'c' gives 0.
void ParseDebugWord(const char* word, DebugSwitches* out);

}  // namespace kvc
