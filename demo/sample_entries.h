// What the sample log writer puts in its log: mostly the server's
// informational lines (logins, backups, checkpoints, DBCC), now and then an
// error as the server reports it - the numbers line, then the message line
// from the same source - and once in a while a symptom dump.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kzq_demo {

enum class EntryKind { kInfo, kError, kSymptomDump };

struct LogEntry {
  EntryKind kind = EntryKind::kInfo;
  std::string source;              // "Logon", "spid57", "Backup", "spid23s"
  std::vector<std::string> lines;  // written together under `source`
  // Errors and dumps: what the agent should report for the entry.
  long error = 0;  // 0 for a dump
  int severity = 0;
  int state = 0;
  std::string message;
};

class SampleEntries {
 public:
  explicit SampleEntries(uint32_t seed) : random_(seed) {}

  // The next entry, picked at random: about one in six is an error and one
  // in forty a symptom dump.
  LogEntry Next();
  // How many entries the next few seconds bring: 1 to 3.
  int BurstSize() { return Between(1, 3); }

  // What the server writes after the header of a new log as it starts up.
  static std::vector<LogEntry> StartupEntries();

 private:
  int Between(int low, int high);
  LogEntry Info();
  LogEntry Error();
  LogEntry SymptomDump();

  std::mt19937 random_;
  int dumps_written_ = 0;
};

}  // namespace kzq_demo
