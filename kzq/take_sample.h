// The sample of a collector table: the rows the collector sends, each
// completed with the agent's leading attributes; for the four server
// tables, when no data can be had, one status row that says why.
#pragma once

#include <atomic>

#include "framework/tavra.h"
#include "kvc/collector_channel.h"
#include "kzq/catalogue.h"

namespace kzq {

// Whether the collector reaches SQL Server, as the last exchange that could
// tell said: rows came (1), the heartbeat's second number (1 or 0), or no
// answer from the collector (unknown).
class DatabaseReach {
 public:
  static constexpr int kUnknown = -1;
  int Get() const { return state_.load(); }
  void Set(int state) { state_.store(state); }

 private:
  std::atomic<int> state_{kUnknown};
};

// Fills the object's rows for one sample of `spec`. Always 0: a failed
// exchange is reported in the log and, for a server table, in its row.
int TakeCollectorSample(kvc::CollectorChannel& channel, framework::tavra& object, const TableSpec& spec,
                        DatabaseReach& reach);

}  // namespace kzq
