// The catalogue as the framework is told it: every table's layout, in
// catalogue order.
#pragma once

#include <vector>

#include "framework/serve/agent_description.h"

namespace kzq {

std::vector<framework::TableDescription> TableDescriptions();

}  // namespace kzq
