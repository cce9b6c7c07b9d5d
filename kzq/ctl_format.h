// How kzqctl shows what the agent answers: a sample as a table of the
// columns asked for (else those that hold something), time stamps as
// readable times, and error events one per line.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kzq/ctl_table.h"

namespace kzq {

// A field's value as text: a text as it is, a number in decimal, no value
// (null) as "".
std::string Shown(const nlohmann::ordered_json& value);

// A 16-character time stamp CYYMMDDHHMMSSmmm as "2026-11-23 18:29:47".
// Stamps are local times; with `utc` the moment is shown in UTC instead
// (taking the stamp as this machine's local time). "" for a stamp of
// digits that names no time (the all-zero ones); nothing when `text` is
// not a stamp at all.
std::optional<std::string> ReadableStamp(const std::string& text, bool utc);

// The names of the attributes of `table` (its name or key, any case) that
// can hold a time stamp (16-character texts), from the catalogue that
// GET /tables answers.
std::set<std::string> StampColumns(const nlohmann::ordered_json& catalogue, const std::string& table);

struct SampleView {
  std::vector<std::string> columns;      // as asked for (any case); empty: all that hold something
  std::set<std::string> stamp_columns;   // shown through ReadableStamp when they hold a stamp
  bool utc = false;
};

// The rows of a sample ({"rows": [...]}) as a table. Without chosen
// columns, those empty in every row are left out, as are the agent's
// bookkeeping columns. Nothing, with the reason in *error, when a chosen
// column is not in the rows.
std::optional<TextTable> SampleTable(const nlohmann::ordered_json& sample, const SampleView& view, std::string* error);

// One error event: "<time>  <error id>  sev <n>  <message>".
std::string EventLine(const nlohmann::ordered_json& event, bool utc);

}  // namespace kzq
