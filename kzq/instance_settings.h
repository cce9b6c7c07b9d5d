// Where each setting of an instance comes from. Four places give values,
// the first that has one wins: the Environment values of the instance's
// registry key (and the keys above it), the command line's presets, the
// process environment, and the instance's configuration file; else the
// setting keeps its default. (The agent's option words, such as -serverid,
// go straight to its configuration record and are not settings here.) Both programs load them at start; the agent
// reads them again on a reload.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "kzq/registry_environment.h"

namespace kzq {

// One value of the configuration file, with where it stands.
struct FileSetting {
  std::string name;
  std::string value;
  int line = 0;
};

struct ConfigFile {
  std::string path;
  bool found = false;
  std::vector<FileSetting> settings;
  std::vector<std::string> problems;  // "<path>:<line>: <problem>", or why it could not be read
};

// Reads `path`: one NAME=value a line, blank lines and lines starting with
// '#' skipped, blanks around name and value dropped, a value in double
// quotes taken as it stands inside them. A line that does not parse, or
// names no known setting, is a problem and is left out. A missing file is
// not a problem.
ConfigFile ReadConfigFile(const std::string& path);

// The file of the instance whose server id is `server_id`: the settings
// directory's <server id>.conf ("" without a server id).
std::string DefaultConfigFile(const std::string& server_id);

struct EffectiveSetting {
  std::string name;
  std::string value;   // as given; "" when unset
  std::string source;  // "registry <key>", "command line", "environment", "file <path>:<line>", "default"
  std::string problem; // why the value is not valid; "" when it is
};

// The registry key a program's command line names: the word after the
// first "-hkey" among argv[1..]; "" when there is none.
std::string RegistryKeyArgument(int argc, char** argv);

// Thread use: made and read on one thread at a time (the main thread at
// start, the reload's thread after).
class InstanceSettings {
 public:
  // Takes the environment as it is (`presets`, the values the command
  // line's presets put, applied), then reads the file and the Environment
  // values of `registry_key` ("" for none), and puts their values into the
  // environment where they win.
  InstanceSettings(std::string registry_key, std::map<std::string, std::string> presets);

  // Reads the file and the registry key again. The environment is left as
  // it is: other threads read it.
  void Reread();

  // Every known setting, in the list's order.
  std::vector<EffectiveSetting> Effective() const;
  // The file's problems and every invalid effective value.
  std::vector<std::string> Problems() const;
  const ConfigFile& File() const { return file_; }

 private:
  void ReadFileAndRegistry();
  std::string Source(const std::string& name, std::string* value) const;

  std::string key_;  // the instance's registry key; "" for none
  std::map<std::string, std::string> command_line_;
  std::map<std::string, std::string> environment_;
  std::vector<RegistryValue> registry_;
  ConfigFile file_;
};

// Prints what --check-config shows: every setting, its value and its
// source, then the problems. True when there are none.
bool PrintSettingsReport(const InstanceSettings& settings, FILE* out);

// Tells the diagnostic log which file was read and every problem, so that a
// setting the program cannot use is seen where its other messages are.
void LogSettings(const InstanceSettings& settings);

}  // namespace kzq
