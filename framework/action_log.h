// The action log: the lines that take-action commands report, kept in
// order with a sequence number so a reader can ask for what came after
// the last line it saw.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Adds one line under a message id with a title.
void TAVRA_insert_log(const char* id, const char* line, const char* title);

namespace framework {

struct ActionLogEntry {
  uint64_t sequence = 0;
  std::string id;
  std::string line;
  std::string title;
};

// The newest lines are kept; older ones fall off beyond this many.
inline constexpr size_t kActionLogCapacity = 1000;

// Entries with a sequence above `after`, oldest first.
std::vector<ActionLogEntry> ActionLogSince(uint64_t after);
// The sequence of the newest entry (0 when empty).
uint64_t ActionLogLast();

}  // namespace framework
