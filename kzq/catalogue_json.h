// The catalogue as JSON, for tools and the HTTP endpoint.
#pragma once

#include <nlohmann/json.hpp>

namespace kzq {

// [{"name", "key", "row_size", "sampling" ("full", "short" or "pushed"),
// "attributes": [{"name", "offset", "length", "type", "identifies"}...]}...]
// in catalogue order, attributes in row order.
nlohmann::ordered_json CatalogueJson();

}  // namespace kzq
