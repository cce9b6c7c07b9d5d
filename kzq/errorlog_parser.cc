#include "kzq/errorlog_parser.h"

#include <cstdio>

#include "kzq/errorlog_events.h"
#include "kzq/errorlog_trace.h"
#include "kzq/errorlog_line.h"
#include "kzq/errorlog_state.h"
#include "kzq/utf16_line_reader.h"

namespace kzq {
namespace {

constexpr int kHeaderLines = 5;

// The log's header block (byte-order mark included) carries no errors.
void SkipHeader(Utf16LineReader& reader) {
  std::u16string line;
  for (int i = 0; i < kHeaderLines; ++i) reader.ReadLine(&line, kMaxLogLineUnits);
}

void PositionReader(ErrorlogContext& context, Utf16LineReader& reader) {
  if (context.offset != 0 && reader.Seek(context.offset)) return;
  if (context.offset != 0) {
    ERRORLOG_FAILURE("\t\tError in setting pointer at Offset:%ld.\n", context.offset.load());
    ERRORLOG_FAILURE("\t\tSettting pointer to the begening.\n");
  }
  reader.Seek(0);
  SkipHeader(reader);
  context.offset = reader.Tell();
}

// Where a restart resumes: the start of the last line handled (of the
// message line after an error), with that line's date and time words.
struct Handled {
  LogLine words;
  long offset = -1;
};

void SaveResumePoint(ResumePointWriter& writer, const ErrorlogContext& context, const Handled& last) {
  if (context.state_file.empty() || last.offset < 0) return;
  writer.Save({last.words.date_word, last.words.time_word, last.offset, 3});
}

// One line, and the message or dump lines that belong to it. False when an
// error's message is not written yet.
bool HandleLine(ErrorlogContext& context, Utf16LineReader& reader, const std::u16string& line, const LogLine& split,
                const EmitEvent& emit, Clock now, int* count) {
  LogTime time;
  ParseLineTime(split, &time);
  if (IsSymptomDumpLine(line) && !IsErrorLine(line)) {
    emit(ReadSymptomDumpEvent(reader, split, time, now()));
    ++*count;
    return true;
  }
  if (!IsErrorLine(line)) return true;
  ErrorNumbers numbers;
  if (!ParseErrorNumbers(split.text, &numbers.error, &numbers.severity, &numbers.state)) {
    ERRORLOG_FAILURE("\t\tError in swscanf while parsing Error.\n");
    numbers.severity = -1;
  }
  if (numbers.severity < context.min_severity) return true;
  const long error_line = context.offset;
  context.offset = reader.Tell();
  std::string event;
  if (!ReadErrorEvent(reader, time, numbers, now(), &event)) {
    // The message is not written yet: the error line is read again with it.
    context.offset = error_line;
    ERRORLOG_FAILURE("\t\tError in fgetws\n");
    return false;
  }
  emit(event);
  ++*count;
  return true;
}

// Reads lines until the end of the log or a roll-over; the offset is left
// at the start of the first line not handled. The resume point is saved
// after each event and at the end, not after every line: rewriting it per
// line cost more than all the parsing, and a restart still reads again at
// most the lines after the last event.
void ReadToEnd(ErrorlogContext& context, Utf16LineReader& reader, const EmitEvent& emit, Clock now, int* count) {
  std::u16string line;
  Handled last;
  ResumePointWriter writer(context.state_file);
  for (;;) {
    context.offset = reader.Tell();
    if (context.roll_over) break;
    if (!ReadWholeLine(reader, &line)) {
      ERRORLOG_FAILURE("\t\tError in fgetws\n");
      break;
    }
    LogLine split;
    SplitLogLine(line, &split);
    const int before = *count;
    if (!HandleLine(context, reader, line, split, emit, now, count)) break;
    last = {split, context.offset.load()};
    if (*count != before) SaveResumePoint(writer, context, last);
  }
  SaveResumePoint(writer, context, last);
}

}  // namespace

int ParseNewLogText(ErrorlogContext& context, const EmitEvent& emit, Clock now) {
  int count = 0;
  for (;;) {
    FILE* file = fopen(context.log_path.c_str(), "rb");
    if (file == nullptr) {
      ERRORLOG_FAILURE("\t\tERRORLOG FILE '%s' cannot be opened.\n", context.log_path.c_str());
      return count;
    }
    Utf16LineReader reader(file);
    PositionReader(context, reader);
    ReadToEnd(context, reader, emit, now, &count);
    ERRORLOG_FLOW("\t\tIn done part\n");
    fclose(file);
    if (!context.more_changes.exchange(false)) break;
  }
  ERRORLOG_FLOW("\n Number of error found :%d.\n", count);
  return count;
}

}  // namespace kzq
