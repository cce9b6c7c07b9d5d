// What both programs of an instance, the agent and the collector, do
// first: take the command-line presets, import the instance's registry
// settings, and open the diagnostic log that they share.
#pragma once

#include <map>
#include <string>

namespace kzq {

// Runs the command-line presets when constructed. A program defines one at
// namespace scope, so that they are in the environment before main runs.
class CommandLinePresets {
 public:
  CommandLinePresets();
  // The text written to the presets' error file; empty when none was.
  const std::string& error() const { return error_; }
  // Whether the command line names a registry key at all; without one
  // (a console start) the presets' failure is expected.
  bool keyed() const { return keyed_; }
  // The settings the presets put, by name.
  const std::map<std::string, std::string>& values() const { return values_; }

 private:
  std::string error_;
  std::map<std::string, std::string> values_;
  bool keyed_ = false;
};

// Whether two command-line words are equal in any ASCII case.
bool SameWord(const char* a, const char* b);

// Opens col.log in KVCLOGDIR and notes the program's start there, with the
// presets' failure when a key was given. False, said on standard error, when
// the log cannot be opened: the program still runs.
bool OpenInstanceLog(const char* program, const CommandLinePresets& presets);

}  // namespace kzq
