// Reading one line of the database server's errorlog: its date, time and
// source words, the message text in its padded column, and what kind of
// line it is (an error, the start or end of a symptom dump). Pure functions
// over UTF-16 text; a line that does not have the expected shape is
// reported as such, never guessed at.
#pragma once

#include <string>

namespace kzq {

// "2026-11-23 10:15:02.31 spid52      Error: 18456, ..."
struct LogLine {
  std::u16string date_word;    // "2026-11-23"
  std::u16string time_word;    // "10:15:02.31"
  std::u16string source_word;  // "spid52", "Server", "Logon", ...
  std::u16string text;         // "Error: 18456, ..."
};

// Splits a line (a trailing CR LF is ignored) into its words and text.
// False unless the date, time and source words are all there; all four
// are then left empty. One LogLine can take line after line: its strings
// keep their room, and a long log is split without allocating. The text
// starts at the first non-blank at least two characters past the source
// word, counted as if the words were one blank apart: the server pads the
// source word to a fixed column, and a text closer than that loses its
// first characters.
bool SplitLogLine(const std::u16string& line, LogLine* out);

struct LogTime {
  int year = 0;   // minus 1900
  int month = 0;  // 1-12 as written
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// Year, month and day from the date word ("%d-%d-%d"), hour, minute and
// second from the time word ("%d:%d:%d", the fraction ignored). False
// unless all six were read.
bool ParseLineTime(const LogLine& line, LogTime* out);

// True when `a` is later than `b` to the second.
bool IsLater(const LogTime& a, const LogTime& b);

// The line holds "Error:", "Severity:" and "State:"; its message text is on
// the next line.
bool IsErrorLine(const std::u16string& line);

// Reads "Error: <n>, Severity: <n>, State: <n>." from the start of an error
// line's text. False unless all three numbers were read. Numbers beyond 32
// bits are held at the 32-bit limits, as the server's own are 32-bit.
bool ParseErrorNumbers(const std::u16string& text, long* error, int* severity, int* state);

// The line starts a symptom dump ("create symptom dump").
bool IsSymptomDumpLine(const std::u16string& line);
// The line ends a symptom dump ("**Stack Dump being sent") and its text is
// the dump's message.
bool IsStackDumpSentLine(const std::u16string& line);

// The severity of a symptom dump: the number of a text that begins with
// "severity=<n>", else (or when that number is 0) 17.
int SymptomDumpSeverity(const std::u16string& text);

}  // namespace kzq
