#include "collector/collector_loop.h"

#include <cstdio>
#include <cstring>

#include "kvc/channel_entry.h"
#include "kvc/diagnostic_log.h"
#include "kzq/catalogue.h"
#include "kzq/instance_names.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "platform/service_probe.h"

namespace collector {

void Answer(kvc::PipeList* entry, RowSource& source) {
  if (entry->word == kHeartbeatRequest) {
    const char* state = source.DatabaseReachable() ? kHeartbeatHealthy : kHeartbeatDatabaseUnreachable;
    kvc::SetPipeRows(entry, 1, static_cast<int32_t>(strlen(state)), state);
    return;
  }
  const kzq::TableSpec* table = kzq::FindTable(entry->word);
  if (table == nullptr) {
    kvc::Log('w', "col0010", "No table named %s: answering with no rows\n", entry->word.c_str());
    kvc::SetPipeRows(entry, 0, 0, nullptr);
    return;
  }
  std::string rows;
  const int32_t count = source.Rows(*table, entry->statement, &rows);
  kvc::SetPipeRows(entry, count, CollectorRowLength(*table), rows.data());
}

int Serve(RowSource& source, int requests, const std::atomic<bool>& stop) {
  KVCCOMM("initsm");
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("initc"));
  if (anchor == nullptr) return 1;
  for (int served = 0; (requests == 0 || served < requests) && !stop;) {
    auto* entry = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, ""));
    if (entry == nullptr) continue;  // no request within the wait, or one discarded as late
    Answer(entry, source);
    if (KVCCOMM("put", anchor) == nullptr)
      kvc::Log('e', "col0020", "Answer to %s not delivered: %s\n", anchor->last_unique.c_str(), anchor->error_text);
    ++served;
  }
  KVCCOMM("term", anchor);
  return 0;
}

std::string WritePidFile() {
  const std::string path = platform::PidFilePath(kzq::CollectorServiceName());
  int err = platform::PrepareRuntimeDirectory();
  if (err == 0) err = platform::WriteFileNoFollow(path, std::to_string(platform::CurrentProcessId()) + "\n");
  if (err == 0) return path;
  kvc::Log('w', "col0001", "Could not write the pid file %s (error %d): the agent will report the collector down\n",
           path.c_str(), err);
  return {};
}

}  // namespace collector
