// The sample of a collector table: the rows the collector sends, each
// completed with the agent's leading attributes; for the four server
// tables, when no data can be had, one status row that says why.
#pragma once

#include "framework/tavra.h"
#include "kvc/collector_channel.h"
#include "kzq/catalogue.h"

namespace kzq {

// Fills the object's rows for one sample of `spec`. Always 0: a failed
// exchange is reported in the log and, for a server table, in its row.
int TakeCollectorSample(kvc::CollectorChannel& channel, framework::tavra& object, const TableSpec& spec);

}  // namespace kzq
