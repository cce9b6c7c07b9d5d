// The agent's own SQL requests, served in process by the SQL library
// instead of a command interpreter.
#pragma once

namespace kvc {

// Runs `request` through the library's execSqlRequest with the output going
// to `output_path`, after handing it the debug settings. The library is
// loaded on first use and kept; a load or look-up that failed is tried
// again on the next call. 0, or -1 when the library cannot be used or the
// request failed.
int RunSqlRequest(const char* request, const char* output_path);

}  // namespace kvc
