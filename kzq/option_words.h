// The agent's option words: "-<keyword> <value>" pairs on the command line
// or in files named after "-filein", stored into the agent's record.
//
// Keywords, matched without regard to case, in table order: logonid,
// loginid, password, ctldir, rdbms, serverid, logsdir, errlog, dbtype,
// ltempdir, tempdir, maxread, dbhome, dbversion, console, initfile,
// version, debug. A keyword may be shortened to a prefix of at least
// three letters; the first keyword in table order that starts with it is
// meant ("log" is logonid, "logs" logsdir). "console" takes no value;
// "rdbms" and "dbtype" are accepted and not kept, since this agent serves
// one kind of database; "-hkey <key>" is the start-up's and is skipped.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kvc/agent_config.h"

namespace kzq {

inline constexpr int kMaxNestedFiles = 10;

// Reads a "-filein" file's text; nothing when it cannot be read.
using OptionFileReader = std::function<std::optional<std::string>(const std::string&)>;

struct OptionResult {
  bool console = false;
  std::vector<std::string> problems;  // one line each, already logged
};

// Applies the words (argv without the program name) to `config`.
OptionResult ApplyOptionWords(const std::vector<std::string>& words, kvc::AgentConfig& config,
                              const OptionFileReader& read_file);

// Reads a file's whole text.
std::optional<std::string> ReadOptionFile(const std::string& path);

}  // namespace kzq
