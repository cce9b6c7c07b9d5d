// The framework's trace facility. Lines go to the trace stream when its
// level asks for them; the stream is standard error until the trace log
// is set up.
#pragma once

#include <cstdio>
#include <string>

#include "kvc/diagnostic_log.h"  // KVC_PRINTF

namespace framework {

// Trace level bits.
inline constexpr int kTraceFlow = 0x1;  // bit 0: flow detail
inline constexpr int kTraceError = 0x2;
inline constexpr int kTraceDetail = 0x4;

// The process-wide trace level (0 = errors only).
int TraceLevel();
void SetTraceLevel(int level);

// Where trace lines go; null restores the rolling trace file, or standard
// error when there is none. The stream stays owned by the caller.
void SetTraceStream(FILE* stream);

// Sets the level from KPB_TRC1 and, when KPB_TRC1_LOG names a file, sends
// trace lines to its rolling files, with `task` as the program's name.
// Returns the first file's path, or "" when tracing goes to stderr.
std::string StartTraceFromEnvironment(const std::string& task);

}  // namespace framework

// Writes one formatted trace text; callers decide by level whether to call.
void TRC1_Printf(const char* format, ...) KVC_PRINTF(1, 2);
// Notes a life-cycle event of a component ("created", "closed"...) when the
// flow level is on.
void TRC1_Event(const char* component, const void* object, const char* event);
// Pushes buffered trace text out to its file.
void TRC1_Sync();
