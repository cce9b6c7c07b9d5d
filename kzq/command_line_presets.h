// Before main runs, the agent takes three settings from its raw command
// line and the machine: COLL_SERVERID (the last element of the "-Hkey"
// registry key), TAVRA_LOG_PATH (LOGS beside the executable) and
// COLL_HOSTNAME. A failure ends the presets and is written to
// "kzqgent_TrcLogPutEnv.txt" in the working directory; start-up goes on.
#pragma once

#include <string>

namespace kzq {

inline constexpr const char* kPresetErrorFile = "kzqgent_TrcLogPutEnv.txt";

// Runs the presets on `raw_line` (null: the command line could not be
// had). Returns the text written to the error file, "" when none was.
std::string ApplyCommandLinePresets(const char* raw_line);

}  // namespace kzq
