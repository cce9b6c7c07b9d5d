// Process environment.
//
// Both backends treat a variable set to the empty text as removed, as the
// Windows C runtime does; readers therefore never see an empty value that
// was set through this layer.
#pragma once

#include <optional>
#include <string>

namespace platform {

// The variable's value, or nothing when it is not set.
std::optional<std::string> GetEnv(const char* name);

// Sets the variable (an empty value removes it). Visible to getenv and to
// child processes. Returns false when the environment refused it.
bool SetEnv(const char* name, const std::string& value);

// Exports a "NAME=value" text. POSIX keeps `pair` itself in the
// environment, Windows a copy; either way the caller never frees it.
bool PutEnvPair(char* pair);

// Replaces each %NAME% whose variable is set by its value, as Windows
// expands REG_EXPAND_SZ texts; other text stays as it is.
std::string ExpandEnvironmentText(const std::string& text);

// The working directory; empty when the OS will not say (*error set).
std::string CurrentDirectory(int* error);

// Where temporary files go when TEMP is not set: the system drive's root
// on Windows ("C:\"), TMPDIR or /tmp on POSIX.
std::string FallbackTempDirectory();

// Where machine-wide settings files live: %ProgramData% on Windows
// (C:\ProgramData when unset), /etc on POSIX.
std::string MachineSettingsRoot();

}  // namespace platform
