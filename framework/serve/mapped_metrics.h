// The agent's metric families rendered from its tables' samples: one
// family per name, its series labelled with the base labels and the
// family's own. Any thread; it reads only what it is given.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "framework/serve/exposition_text.h"
#include "framework/serve/metric_family.h"
#include "framework/serve/sample_capture.h"

namespace framework {

// `fresh` holds the samples series may come from, by upper-case table key;
// a family of any other table has no series, and a family without series
// is left out whole.
std::string MappedSeries(const std::vector<MetricFamilyDescription>& families,
                         const std::map<std::string, const CapturedSample*>& fresh, const std::vector<Label>& base,
                         int64_t now);

}  // namespace framework
