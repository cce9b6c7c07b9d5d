// The one owner of the agent's data paths: the collector channel and the
// collector rows every sampled table answers from, and the errorlog monitor with the queue of
// error events behind the pushed table. The agent's start makes one and
// keeps it for the life of the process; RegisterAllTables hands its
// sources to the table managers. Nothing on these paths is reached any
// other way, so a test can build its own.
#pragma once

#include <vector>

#include "framework/serve/agent_description.h"
#include "framework/tavra.h"
#include "kvc/collector_channel.h"
#include "kzq/catalogue.h"
#include "kzq/errorlog_monitor.h"
#include "kzq/errorlog_queue.h"
#include "kzq/row_source.h"
#include "kzq/take_sample.h"

namespace kzq {

// Made and destroyed on one thread; once made, its sources and its
// monitor are called from the framework's threads (see each class).
class AgentDataPaths {
 public:
  // `channel` is the process's channel to the collector, opened by the
  // agent's start; it outlives this object.
  explicit AgentDataPaths(kvc::CollectorChannel& channel);
  AgentDataPaths(const AgentDataPaths&) = delete;
  AgentDataPaths& operator=(const AgentDataPaths&) = delete;

  // Where the managers of sampled tables and of the pushed table get their rows.
  RowSource& CollectorRows() { return collector_rows_; }
  RowSource& ErrorEventRows() { return error_rows_; }
  // Hears the pushed table's event requests.
  ErrorlogMonitor& Monitor() { return monitor_; }
  // The agent's own counters for /metrics; valid while this object lives.
  framework::ApplicationCounters Counters() const;
  // Whether the collector reaches SQL Server (1, 0, or DatabaseReach::kUnknown); any thread.
  int DatabaseReachable() const { return reach_.Get(); }

 private:
  // Each sample of a collector table is one exchange with the collector.
  class CollectorRowSource final : public RowSource {
   public:
    CollectorRowSource(kvc::CollectorChannel& channel, DatabaseReach& reach) : channel_(channel), reach_(reach) {}
    int Sample(framework::tavra& object, const TableSpec& spec) override;

   private:
    kvc::CollectorChannel& channel_;
    DatabaseReach& reach_;
  };
  // kzqerror's report sample answers from the queue.
  class ErrorEventRowSource final : public RowSource {
   public:
    ErrorEventRowSource(ErrorEventQueue& queue, const ErrorlogMonitor& monitor) : queue_(queue), monitor_(monitor) {}
    int Sample(framework::tavra& object, const TableSpec& spec) override;

   private:
    ErrorEventQueue& queue_;
    const ErrorlogMonitor& monitor_;
  };
  // Hands each new error row to every open event request of kzqerror, and
  // lets the monitor wait until their consumers have written it out.
  class ErrorTableSink final : public ErrorEventSink {
   public:
    void Emit(const std::string& row, const std::string& event_id) override;
    void AwaitDelivery() override;
  };

  kvc::CollectorChannel& channel_;
  DatabaseReach reach_;
  ErrorEventQueue queue_;
  ErrorTableSink sink_;
  ErrorlogMonitor monitor_;
  CollectorRowSource collector_rows_;
  ErrorEventRowSource error_rows_;
};

}  // namespace kzq
