// The errorlog monitor's trace lines: its progress with the flow bit of the
// trace level, its failures with the error bit. Both are off by default,
// as a monitor reaching the end of the log "fails" on every change.
#pragma once

#include "framework/trace.h"

#define ERRORLOG_FLOW(...)                                                         \
  do {                                                                             \
    if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf(__VA_ARGS__); \
  } while (0)

#define ERRORLOG_FAILURE(...)                                                       \
  do {                                                                              \
    if (framework::TraceLevel() & framework::kTraceError) TRC1_Printf(__VA_ARGS__); \
  } while (0)
