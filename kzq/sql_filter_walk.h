// The SQL text table's use of its request's filter: every comparison is
// traced, and an equality on PID names the session whose SQL text the
// collector is asked for.
#pragma once

#include <string>

#include "framework/tavra.h"

namespace kzq {

// Traces "Processing Filter" and each comparison of the filter, then
// rewinds the walk.
void TraceFilterElements(framework::tavra& object);

// The value of the first comparison on PID as a decimal number, or "" when
// the filter has none.
std::string SessionIdFromFilter(framework::tavra& object);

}  // namespace kzq
