// The database server's errorlog as bytes: UTF-16LE after a byte-order
// mark, CR LF line ends, and lines of
// "YYYY-MM-DD HH:MM:SS.cc <source padded to 12 columns><text>" in local
// time. The sample log writer and the tests' log fixtures both write
// through these, so what the agent is tested against is what the demo
// shows it.
#pragma once

#include <string>
#include <vector>

#include "platform/clock.h"

namespace kzq_demo {

inline constexpr char kByteOrderMark[] = "\xFF\xFE";

// The time written in front of a line. The default is a fixed moment, so a
// log written from it is the same on every run.
struct LogClock {
  int year = 2026;
  int month = 11;
  int day = 23;
  int hour = 10;
  int minute = 0;
  int second = 0;
  int hundredths = 0;
};

LogClock ClockOf(const platform::LocalTime& local);

// UTF-16LE bytes of UTF-8 text.
std::string Utf16Bytes(const std::string& utf8);

// One line as the server formats it, without its line end.
std::string LogLineText(const LogClock& time, const std::string& source, const std::string& text);

// The bytes of lines written together: one time and source, each line
// ended by CR LF.
std::string LogLines(const LogClock& time, const std::string& source, const std::vector<std::string>& texts);

// The first line of an error entry; the message follows on the next line.
std::string ErrorNumbersText(long error, int severity, int state);

// The line that closes a symptom dump, naming the file the dump went to.
std::string StackDumpSentText(const std::string& dump_file);

// The five lines (source "Server") the server starts a new log with.
struct StartupFacts {
  std::string utc_adjustment;  // "1:00"
  unsigned long process_id = 0;
  std::string log_file;  // as the server names it in the header
};
std::vector<std::string> StartupHeader(const StartupFacts& facts);

// Appends to the file and closes it, so a reader finds the bytes at once.
// False when the file cannot be written.
bool AppendToLog(const std::string& path, const std::string& bytes);

}  // namespace kzq_demo
