// The collector's service loop: take each request from the channel and
// answer it from the row source.
#pragma once

#include <atomic>
#include <string>

#include "collector/row_source.h"
#include "kvc/channel_dispatch.h"

namespace collector {

// The heartbeat request and its answer: two numbers, the collector's
// state and the database's, 1 when healthy ("1 0": the collector runs but
// cannot reach SQL Server).
inline constexpr const char* kHeartbeatRequest = "HART4";
inline constexpr const char* kHeartbeatHealthy = "1 1";
inline constexpr const char* kHeartbeatDatabaseUnreachable = "1 0";

// Fills the anchor's request entry with the answer to its word.
void Answer(kvc::PipeList* entry, RowSource& source);

// Answers requests until `requests` have been served (0: for ever) or
// `stop` is set; a stop is seen within one request wait. Returns 0, or 1
// when the channel could not be opened.
int Serve(RowSource& source, int requests, const std::atomic<bool>& stop);

// Writes this process's id to the pid file of KZQCOLL<COLL_SERVICENUMBER>
// for this server, where the agent's service probe looks. Returns the
// path, or "" when it cannot be written (logged).
std::string WritePidFile();

}  // namespace collector
