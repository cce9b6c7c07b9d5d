#include "framework/action_log.h"

#include <deque>
#include <mutex>

namespace framework {
namespace {

struct ActionLog {
  std::mutex lock;
  std::deque<ActionLogEntry> entries;
  uint64_t last = 0;
};

ActionLog& Log() {
  static ActionLog log;
  return log;
}

}  // namespace

std::vector<ActionLogEntry> ActionLogSince(uint64_t after) {
  ActionLog& log = Log();
  std::lock_guard<std::mutex> guard(log.lock);
  std::vector<ActionLogEntry> out;
  for (const ActionLogEntry& e : log.entries)
    if (e.sequence > after) out.push_back(e);
  return out;
}

uint64_t ActionLogLast() {
  ActionLog& log = Log();
  std::lock_guard<std::mutex> guard(log.lock);
  return log.last;
}

}  // namespace framework

void TAVRA_insert_log(const char* id, const char* line, const char* title) {
  framework::ActionLog& log = framework::Log();
  std::lock_guard<std::mutex> guard(log.lock);
  log.entries.push_back({++log.last, id ? id : "", line ? line : "", title ? title : ""});
  if (log.entries.size() > framework::kActionLogCapacity) log.entries.pop_front();
}
