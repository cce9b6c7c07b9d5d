#include "kzq/channel_metrics.h"

#include <string>

namespace kzq {

std::vector<framework::CounterFamily> ChannelCounters(const kvc::ChannelCounts& c) {
  const auto family = [](const char* name, const std::string& help, uint64_t value) {
    return framework::CounterFamily{name, help, {{{}, value}}};
  };
  return {
      family("kzq_channel_exchanges_total", "Requests the agent sent the collector, each with its answer awaited.",
             c.exchanges),
      family("kzq_channel_timeouts_total",
             "Exchanges whose request or answer did not get through within WAIT_TIMEOUT seconds.", c.timeouts),
      family("kzq_channel_failures_total", "Exchanges ended by a failed semaphore or shared-memory operation.",
             c.failures),
      family("kzq_channel_refused_answers_total",
             "Answers whose rows were refused: the bytes sent do not cover the rows claimed, or the row length is "
             "not the table's.",
             c.refused),
      family("kzq_channel_late_answers_total", "Answers to an earlier request, skipped while waiting for the current one.",
             c.late),
      family("kzq_channel_abandoned_answers_total",
             "Answers given up part-way; each is marked finished so the collector's next answer goes out at once.",
             c.abandoned),
      family("kzq_channel_busy_total",
             "Exchanges not made because another held the channel longer than the caller would wait.", c.busy),
      family("kzq_channel_skipped_total",
             "Exchanges not made: the last one went unanswered and the collector's service is not running (one is "
             "tried every " + std::to_string(kvc::CollectorChannel::kOutageRetrySeconds) + " seconds all the same).",
             c.skipped),
      family("kzq_channel_header_repairs_total",
             "Channel header fields found out of range (a stray write, an older program) and set back to their "
             "defaults.",
             c.repairs),
  };
}

}  // namespace kzq
