// The catalogue as consumers read it from GET /tables.
#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "framework/serve/agent_description.h"

namespace framework {

// [{"name", "key", "row_size", "sampling" ("full", "short" or "pushed"),
// "attributes": [{"name", "offset", "length", "type", "identifies"}...]}...]
// in the tables' order, attributes in row order.
nlohmann::ordered_json CatalogueJson(const std::vector<TableDescription>& tables);

}  // namespace framework
