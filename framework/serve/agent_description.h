// What the agent tells the framework about itself beyond its table
// objects: the layout of every table, the metric families it publishes
// from them, how to ask whether the services it depends on run, and its
// own counters. The agent's loader hands it over
// once, typed; the endpoint keeps it and turns it into JSON only where it
// goes on the wire.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/serve/metric_family.h"

namespace framework {

enum class SamplingForm { kFull, kShort, kPushed };

struct AttributeDescription {
  std::string name;  // lower case
  int offset = 0;
  int length = 0;
  int type = 0;  // kTextType, kInt32Type ...
  bool identifies = false;  // a text that tells rows apart: a label of its series
};

struct TableDescription {
  std::string name;  // lower case, "kzqdbd"
  std::string key;   // upper case, "KZQDBD"
  int row_size = 0;
  SamplingForm sampling = SamplingForm::kFull;
  std::vector<AttributeDescription> attributes;  // in row order

  // The attribute of that name (any case), or null.
  const AttributeDescription* Attribute(std::string_view name) const;
  // The lower-case names of the attributes that identify a row.
  std::vector<std::string> IdentifyingAttributes() const;
};

struct ServiceState {
  std::string role;  // "collector", "sqlserver"
  std::string name;  // the service's own name
  bool up = false;
  // For SQL Server: whether the collector reaches it (1) or cannot (0);
  // -1 when nobody knows (the collector does not answer).
  int reachable = -1;
};

// A counter family the application keeps (the agent's errorlog monitor):
// each sample's labels follow the agent's own.
struct CounterFamily {
  std::string name;
  std::string help;
  std::vector<std::pair<std::vector<std::pair<std::string, std::string>>, uint64_t>> samples;
};

// Both are called on the endpoint's threads, on every scrape or status
// read, and must be safe to call from several at once.
using ServiceProbe = std::function<std::vector<ServiceState>()>;
// Settings a reload gave new valid values, by name.
using SettingValues = std::map<std::string, std::string>;
using ApplicationCounters = std::function<std::vector<CounterFamily>()>;

// Read-only once handed over, so any thread may read it.
struct AgentDescription {
  std::vector<TableDescription> tables;  // in the order consumers see them
  ServiceProbe probe;                    // empty: no services to show
  ApplicationCounters counters;          // empty: none
  std::vector<MetricFamilyDescription> metrics;  // what /metrics publishes from the tables
  std::string status_page;                       // the HTML GET / answers; empty: none
  // Takes the reloaded settings that the agent, not the framework, uses;
  // called on the reload's thread. Empty: none.
  std::function<void(const SettingValues&)> apply_settings;

  // The table of that name or key (any case), or null.
  const TableDescription* Find(std::string_view table) const;
  // Asks afresh; empty without a probe.
  std::vector<ServiceState> ProbeServices() const;
  std::vector<CounterFamily> Counters() const;
};

}  // namespace framework
