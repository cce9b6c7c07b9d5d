// Reads a systemd service unit the way the service manager does for the
// settings that decide how its program starts: the [Service] section's
// ExecStart=, Environment=, EnvironmentFile=, WorkingDirectory= and the
// directory settings, with the instance of a template unit in place of %i.
// Only what the kzq units use is understood; anything else in a value that
// systemd would treat specially is an error, not a guess.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kzq_test {

// Splits a setting into words as systemd does: blanks separate words,
// single or double quotes hold blanks, and the character escapes (\\ \"
// \' \n \t \s ...) are decoded inside and outside quotes. Then %i becomes
// `instance` and %% a percent sign in every word. nullopt with *error set
// for an unfinished quote, an unknown escape or specifier.
std::optional<std::vector<std::string>> SplitUnitWords(const std::string& value, const std::string& instance,
                                                       std::string* error);

// The assignments of an environment file: NAME=VALUE lines, # and ;
// comments, a value in single or double quotes taken as it stands (\\ \"
// and \$ decoded in double quotes). nullopt with *error for a line without
// a name.
std::optional<std::vector<std::pair<std::string, std::string>>> ParseEnvironmentFile(const std::string& text,
                                                                                     std::string* error);

class SystemdUnit {
 public:
  struct EnvironmentFile {
    std::string path;
    bool optional = false;  // "-" before the path: a missing file is no error
  };

  // The unit file at `path` as the instance `instance` of its template.
  static std::optional<SystemdUnit> Load(const std::string& path, const std::string& instance, std::string* error);

  // ExecStart='s program and arguments.
  const std::vector<std::string>& Command() const { return command_; }
  // Environment= assignments in their order (a later one wins).
  const std::vector<std::pair<std::string, std::string>>& Environment() const { return environment_; }
  const std::vector<EnvironmentFile>& EnvironmentFiles() const { return environment_files_; }
  // The last value of a single-valued setting such as WorkingDirectory=,
  // specifiers resolved; empty when unset.
  std::string Value(const std::string& key) const;
  // Every word of a list setting such as StateDirectory=.
  const std::vector<std::string>& Words(const std::string& key) const;

 private:
  std::vector<std::string> command_;
  std::vector<std::pair<std::string, std::string>> environment_;
  std::vector<EnvironmentFile> environment_files_;
  std::map<std::string, std::vector<std::string>> words_;
};

}  // namespace kzq_test
