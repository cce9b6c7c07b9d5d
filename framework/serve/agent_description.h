// What the agent tells its consumers beyond the rows: the catalogue of its
// tables and how to ask whether the services it depends on run. The agent
// loader publishes both before the endpoint starts.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace framework {

struct ServiceState {
  std::string role;  // "collector", "sqlserver"
  std::string name;  // the service's own name
  bool up = false;
};

using ServiceProbe = std::function<std::vector<ServiceState>()>;

// [{"name", "key", "row_size", "attributes": [{"name", "offset", "length",
// "type", "identifies"}...]}...]
void PublishCatalogue(nlohmann::ordered_json catalogue);
const nlohmann::ordered_json& PublishedCatalogue();
// The lower-case names of the text attributes that identify a row of the
// table (any case); they become labels of its series.
std::vector<std::string> IdentifyingAttributes(const std::string& table);

void PublishServiceProbe(ServiceProbe probe);
// Asks afresh; empty when nothing was published.
std::vector<ServiceState> ProbeServices();

}  // namespace framework
