// Where the errorlog's unread text is once the database server has cycled
// the log (renamed it to ERRORLOG.1, the older ones one number up, and
// started a new one), truncated it or removed it: the resume point - the
// last dated line read - is looked for where the offset says it is, in the
// log and in its older generations.
#pragma once

#include <cstdio>
#include <string>

#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_state.h"

namespace kzq {

enum class UnreadText {
  kInLog,          // the log is the one read so far: read on from the offset
  kInPreviousLog,  // the log was cycled: an older generation holds the rest
  kGone,           // the log was truncated or replaced: read it from its start
  kNoLog,          // there is no log to read
};

// The most generations the server keeps besides the log.
inline constexpr int kMaxGenerations = 99;

// `log` is the context's log opened for reading, or null when it could not
// be opened. While no resume point is known, a log at least as long as the
// offset counts as the one read so far, and an older generation is never
// taken for it. With kInPreviousLog, *generation is the number of the one
// that holds the point.
UnreadText FindUnreadText(const ErrorlogContext& context, FILE* log, int* generation);

// The name of the log's generation `number` (1: the one cycled last).
std::string GenerationPath(const std::string& log_path, int number);

// True when the line at the point's offset in `file` has the point's date
// and time words, so the point was taken from this file.
bool HoldsResumePoint(FILE* file, const ResumePoint& point);

// Resumes from a point read back from the state file when the log or one of
// its generations holds it. False when none does - the log was truncated
// or replaced, or cycled more often than the server keeps generations, or
// the point is damaged - and the log is then read from its start.
bool ResumeFrom(ErrorlogContext& context, const ResumePoint& point);

}  // namespace kzq
