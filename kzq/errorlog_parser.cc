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

// Reads lines until the end of the log or a roll-over; the offset is left
// at the start of the first line not handled.
void ReadToEnd(ErrorlogContext& context, Utf16LineReader& reader, const EmitEvent& emit, Clock now, int* count) {
  std::u16string line;
  for (;;) {
    context.offset = reader.Tell();
    if (context.roll_over) return;
    if (!ReadWholeLine(reader, &line)) {
      ERRORLOG_FAILURE("\t\tError in fgetws\n");
      return;
    }
    LogLine split;
    LogTime time;
    SplitLogLine(line, &split);
    ParseLineTime(split, &time);
    if (IsErrorLine(line)) {
      ErrorNumbers numbers;
      if (!ParseErrorNumbers(split.text, &numbers.error, &numbers.severity, &numbers.state)) {
        ERRORLOG_FAILURE("\t\tError in swscanf while parsing Error.\n");
        numbers.severity = -1;
      }
      if (numbers.severity >= context.min_severity) {
        if (context.roll_over) return;
        const long error_line = context.offset;
        context.offset = reader.Tell();
        std::string event;
        if (!ReadErrorEvent(reader, time, numbers, now(), &event)) {
          // The message is not written yet: the error line is read again
          // with it next time.
          context.offset = error_line;
          ERRORLOG_FAILURE("\t\tError in fgetws\n");
          return;
        }
        emit(event);
        ++*count;
      }
    } else if (IsSymptomDumpLine(line)) {
      emit(ReadSymptomDumpEvent(reader, split, time, now()));
      ++*count;
    }
    if (!context.state_file.empty())
      WriteResumePoint(context.state_file, {split.date_word, split.time_word, context.offset.load(), 3});
  }
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
