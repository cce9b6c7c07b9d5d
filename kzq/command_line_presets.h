// Before main runs, the agent takes three settings from its raw command
// line and the machine: COLL_SERVERID (the last element of the "-Hkey"
// registry key), TAVRA_LOG_PATH (LOGS beside the executable, unless the
// environment already names a directory) and COLL_HOSTNAME. A failure ends
// the presets and is written to "kzqgent_TrcLogPutEnv.txt" in the log
// directory (KVCLOGDIR when inherited, else the temporary directory - never
// the working directory, which is the system's own for a service); start-up
// goes on, and the programs repeat the text in their log once it is open.
#pragma once

#include <string>

namespace kzq {

inline constexpr const char* kPresetErrorFile = "kzqgent_TrcLogPutEnv.txt";

// Where the error file is written.
std::string PresetErrorFilePath();

// Runs the presets on `raw_line` (null: the command line could not be
// had). Returns the text written to the error file, "" when none was.
std::string ApplyCommandLinePresets(const char* raw_line);

}  // namespace kzq
