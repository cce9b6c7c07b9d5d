// How kzqctl shows what the agent answers: samples as a table of the
// columns that hold something, and error events one per line.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace kzq {

// Widest a column gets; longer values are cut and end in "~".
inline constexpr size_t kMaxColumnWidth = 32;

// The rows of a sample ({"rows": [...]}) as a text table: a header line,
// a rule, one line per row. Columns empty or null in every row are left
// out, as are the agent's bookkeeping columns.
std::string SampleTable(const nlohmann::ordered_json& sample);

// One error event: "<time>  <error id>  sev <n>  <message>".
std::string EventLine(const nlohmann::ordered_json& event);

}  // namespace kzq
