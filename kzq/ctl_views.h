// kzqctl's summaries, each made from the rows of one table's sample.
#pragma once

#include <nlohmann/json.hpp>

#include "kzq/ctl_table.h"

namespace kzq {

// The sessions that block others and those they block, from KZQPRCD,
// whose BLOCKID names the session a session waits for ("0": none). Each
// waiting session follows its blocker, indented one step deeper; sessions
// that wait in a circle are shown from the first of them. No rows when
// no session waits for another.
TextTable BlockingTree(const nlohmann::ordered_json& processes);

// The Agent jobs of KZQJOBD with their state now (disabled, idle,
// executing...) and their last run.
TextTable JobTable(const nlohmann::ordered_json& jobs, bool utc);

// Per database of KZQDBD: its state, data and log sizes and their free share.
TextTable DatabaseTable(const nlohmann::ordered_json& databases);

}  // namespace kzq
