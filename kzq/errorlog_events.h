// Turning the lines of an errorlog into error events: the error line and
// the message line after it, or a symptom dump and its closing line.
#pragma once

#include <cstdint>
#include <string>

#include "kzq/errorlog_line.h"
#include "kzq/errorlog_state.h"
#include "kzq/utf16_line_reader.h"

namespace kzq {

// The longest line read at once, in 16-bit units.
inline constexpr size_t kMaxLogLineUnits = 2048;

// Reads the next whole line. A last line without its line feed is still
// being written: it is left unread (the reader stays before it) and the
// result is false, as at the end of the file.
bool ReadWholeLine(Utf16LineReader& reader, std::u16string* line);

// Makes the line read from `start` the resume point when it is dated (split
// into its words): only such a line can be found again later.
void MarkLine(bool dated, const LogLine& words, long start, ResumePoint* mark);

struct ErrorNumbers {
  long error = 0;
  int severity = 0;
  int state = 0;
};

// The event of an error line, whose message is the next line; false (and
// nothing read) when that line is not there yet. The message line is
// marked in `mark` when one is given.
bool ReadErrorEvent(Utf16LineReader& reader, const LogTime& time, const ErrorNumbers& numbers, int64_t now,
                    std::string* event, ResumePoint* mark = nullptr);

// The event of a symptom dump starting at `dump_line`: the lines up to the
// one that says the stack dump is being sent (or the end of the file) are
// read, and that last line's text is the message. The last dated line read
// is marked in `mark` when one is given.
std::string ReadSymptomDumpEvent(Utf16LineReader& reader, const LogLine& dump_line, const LogTime& time,
                                 int64_t now, ResumePoint* mark = nullptr);

}  // namespace kzq
