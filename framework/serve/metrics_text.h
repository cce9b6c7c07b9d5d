// Prometheus text exposition of the cached samples and of the agent's own
// health. The agent's metric families (names, units, labels as it
// describes them) come from the tables' samples; with `raw_tables` every
// integer attribute is also a gauge kzq_<table>_<attribute>, labelled by
// the texts that identify a row. Every series carries the server_id and
// host labels. Fields without a value are left out, and so are the series
// of a table whose last good sample is stale; its health series (age,
// samples, errors) stay.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "framework/serve/agent_description.h"
#include "framework/serve/exposition_text.h"
#include "framework/serve/metric_family.h"
#include "framework/serve/sample_cache.h"

namespace framework {

struct MetricsContext {
  std::string server_id;
  std::string host;
  int64_t now = 0;  // Unix seconds
  uint64_t events_emitted = 0;
  // A table's series go once its last good sample is older than this (two
  // sampling intervals): a stale value shown as current is worse than none.
  int64_t stale_after = 60;
  std::vector<CounterFamily> application_counters;
  bool raw_tables = false;  // also the per-table gauges of every integer attribute
};

// `catalogue` tells which attributes of each table identify its rows,
// `families` what the agent publishes from them.
std::string MetricsText(const std::map<std::string, CachedTable>& tables, const std::vector<TableDescription>& catalogue,
                        const std::vector<MetricFamilyDescription>& families, const std::vector<ServiceState>& services,
                        const MetricsContext& context);

}  // namespace framework
