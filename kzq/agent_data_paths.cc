#include "kzq/agent_data_paths.h"

#include <chrono>

#include "framework/serve/event_stream.h"
#include "kzq/channel_metrics.h"
#include "kzq/table_pattern.h"
#include "kzq/tables.h"
#include "kzq/take_sample.h"
#include "platform/clock.h"

namespace kzq {
namespace {

// A consumer that writes nothing for this long is no longer waited for
// before the resume point moves on; it hears of what it loses.
constexpr std::chrono::milliseconds kConsumerStall{2000};

}  // namespace

AgentDataPaths::AgentDataPaths(kvc::CollectorChannel& channel)
    : channel_(channel),
      monitor_(sink_, queue_, platform::NowUnixSeconds),
      collector_rows_(channel, reach_),
      error_rows_(queue_, monitor_) {}

framework::ApplicationCounters AgentDataPaths::Counters() const {
  return [this] {
    std::vector<framework::CounterFamily> families = monitor_.Counters();
    for (framework::CounterFamily& family : ChannelCounters(channel_.Counts())) families.push_back(std::move(family));
    return families;
  };
}

int AgentDataPaths::CollectorRowSource::Sample(framework::tavra& object, const TableSpec& spec) {
  return TakeCollectorSample(channel_, object, spec, reach_);
}

int AgentDataPaths::ErrorEventRowSource::Sample(framework::tavra& object, const TableSpec&) {
  return ErrorlogReportSample(object, queue_, monitor_.RequestCount() > 0, monitor_.ReloadedMinSeverity());
}

// The pushed table's manager is the one its initialiser registered; before
// that no event request can be open, so there is no one to push to.
void AgentDataPaths::ErrorTableSink::Emit(const std::string& row, const std::string& event_id) {
  if (kzqerror_manager() != nullptr) PushRowsToAll(*kzqerror_manager(), row.data(), 1, event_id);
}

void AgentDataPaths::ErrorTableSink::AwaitDelivery() {
  framework::WaitUntilEventsWritten(kzqerror_spec.key, kConsumerStall);
}

}  // namespace kzq
