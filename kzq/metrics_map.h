// The metric families the agent publishes, as data (kzq/metrics_map.def),
// turned into the framework's descriptions and checked against the
// catalogue: every entry names a table and attributes that exist, names
// follow Prometheus conventions, counters end in _total, and entries that
// share a name differ in a constant label.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "framework/serve/agent_description.h"
#include "framework/serve/metric_family.h"

namespace kzq {

// One entry of kzq/metrics_map.def, as written there.
struct MetricEntry {
  const char* name;
  const char* kind;
  const char* source;
  const char* conversion;
  const char* series;
  const char* labels;
  const char* help;
};

// The entries of kzq/metrics_map.def.
std::span<const MetricEntry> MetricEntries();

// The descriptions of `entries`, or std::nullopt and the first bad entry
// with what is wrong with it.
std::optional<std::vector<framework::MetricFamilyDescription>> BuildMetricsMap(
    std::span<const MetricEntry> entries, const std::vector<framework::TableDescription>& tables, std::string* error);

}  // namespace kzq
