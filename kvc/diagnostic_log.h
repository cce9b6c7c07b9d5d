// The diagnostic log: one writer for every process of a server, each line
// prefixed with a message id and a level letter.
//
// Every line starts with the local date and time; a line equal to the one
// before it is counted rather than written (see RepeatedLines).
//
// Levels: 'e' error and 's' set-up error (echoed to standard error, file
// flushed), 'a' (echoed, shown as I), 'i' and 'w' (file only), 't' trace
// (with the time), 'h' trace written only with COLL_TRACE_DETAIL on, '@'
// (sets the process name shown on console lines, writes nothing), '-' or
// none (no id prefix). Any other letter is echoed.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "kvc/debug_switches.h"

namespace kvc {

#if defined(__GNUC__)
#define KVC_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define KVC_PRINTF(fmt, args)
#endif

void Log(char level, const char* id, const char* format, ...) KVC_PRINTF(3, 4);

// "YYYY-MM-DD HH:MM:SS.mmm " in local time: what begins every line of the
// logs an operator reads, so that lines of several processes and files can
// be put in order.
std::string TimeStamp();

// As Log, for callers that pass their source position; with
// COLL_TRACE_DETAIL on the position precedes the message.
void LogAt(const char* file, int line, const char* level, const char* id,
           const char* format, ...) KVC_PRINTF(5, 6);

// Writes `length` bytes as lines of 16, at trace level, under `id`
// (upx0100 when null).
void HexDump(const char* id, const void* bytes, size_t length);

// Wrap check before a write to `file`: counts the write and, when the count
// before it reached COLL_WRAPLINES, reopens `name` truncated and notes it.
// Returns the file to write to.
FILE* LogWrap(FILE* file, const char* name, int* counter);

// Opens "col.log" in KVCLOGDIR (the current directory when unset; created
// when missing) for appending and makes it the log file; error lines are
// still echoed to standard error. 0 on success; 1 when it cannot be opened
// and the previous log file stays in use.
int OpenLogFile();

// Opens the message output file ("col.out" when `name` is null) in the log
// directory after rotating its numbered backups. Returns the open file, or
// null when neither it nor "colx.out" can be opened.
FILE* OpenOutputFile(const char* name);

// The number of output-file backups for a COLL_NUMOUTBAK value (null or
// empty when unset) and the first debug level.
int BackupCountFor(const char* setting, int first_debug_level);

// Moves `path` to backup 1 after shifting backups 1..count-1 up by one;
// a backup's name is `path` with its last character replaced by its number.
void RotateBackups(const char* path, int count);

}  // namespace kvc

#define KVC_LOG_AT(level, id, ...) ::kvc::LogAt(__FILE__, __LINE__, level, id, __VA_ARGS__)

// A trace line that is written only while the debug switch is on.
#define KVC_DEBUG_TRACE(id, ...)                                \
  do {                                                          \
    if (::kvc::Debug().debug) ::kvc::Log('t', id, __VA_ARGS__); \
  } while (0)
