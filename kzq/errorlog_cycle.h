// Where the errorlog's unread text is once the database server has cycled
// the log (renamed it to ERRORLOG.1 and started a new one), truncated it or
// removed it: the resume point - the last dated line read - is looked for
// where the offset says it is, in the log and in its previous generation.
#pragma once

#include <cstdio>
#include <string>

#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_state.h"

namespace kzq {

enum class UnreadText {
  kInLog,          // the log is the one read so far: read on from the offset
  kInPreviousLog,  // the log was cycled: its previous generation holds the rest
  kGone,           // the log was truncated or replaced: read it from its start
  kNoLog,          // there is no log to read
};

// `log` is the context's log opened for reading, or null when it could not
// be opened. While no resume point is known, a log at least as long as the
// offset counts as the one read so far, and a previous generation is never
// taken for it.
UnreadText FindUnreadText(const ErrorlogContext& context, FILE* log);

// The name the server gives the log when it cycles it.
std::string PreviousLogPath(const std::string& log_path);

// True when the line at the point's offset in `file` has the point's date
// and time words, so the point was taken from this file.
bool HoldsResumePoint(FILE* file, const ResumePoint& point);

// Resumes from a point read back from the state file: its offset, and the
// point itself when the log or its previous generation holds it. A point
// found in neither (one the start-up scan took at the log's end, or one
// from a log cycled twice since) gives the offset alone.
void ResumeFrom(ErrorlogContext& context, const ResumePoint& point);

}  // namespace kzq
