#include "kzq/errorlog_events.h"

#include "kzq/error_event.h"

namespace kzq {

bool ReadWholeLine(Utf16LineReader& reader, std::u16string* line) {
  const long start = reader.Tell();
  if (!reader.ReadLine(line, kMaxLogLineUnits)) return false;
  // A line cut at the length limit is whole as far as the log's reader
  // goes; only the file's last, unfinished line is left for later.
  if (line->back() == u'\n' || line->size() + 1 >= kMaxLogLineUnits) return true;
  reader.Seek(start);
  return false;
}

// Every dated line is marked: the words are copied into the strings the
// mark already holds, which allocates nothing once they are long enough.
void MarkLine(bool dated, const LogLine& words, long start, ResumePoint* mark) {
  if (!dated || mark == nullptr) return;
  mark->date_word = words.date_word;
  mark->time_word = words.time_word;
  mark->offset = start;
  mark->values = 3;
}

bool ReadErrorEvent(Utf16LineReader& reader, const LogTime& time, const ErrorNumbers& numbers, int64_t now,
                    std::string* event, ResumePoint* mark) {
  const long start = reader.Tell();
  std::u16string message_line;
  if (!ReadWholeLine(reader, &message_line)) return false;
  LogLine message;
  MarkLine(SplitLogLine(message_line, &message), message, start, mark);
  EventInputs in;
  in.time = time;
  in.error = numbers.error;
  in.severity = numbers.severity;
  in.state = numbers.state;
  in.text = message.text;
  in.source_word = message.source_word;
  in.now = now;
  *event = BuildErrorEvent(in);
  return true;
}

std::string ReadSymptomDumpEvent(Utf16LineReader& reader, const LogLine& dump_line, const LogTime& time,
                                 int64_t now, ResumePoint* mark) {
  LogLine last = dump_line;
  std::u16string line;
  LogLine split;
  for (long start = reader.Tell(); ReadWholeLine(reader, &line); start = reader.Tell()) {
    const bool dated = SplitLogLine(line, &split);
    if (dated) last = split;
    MarkLine(dated, split, start, mark);
    if (IsStackDumpSentLine(line)) break;
  }
  EventInputs in;
  in.time = time;
  in.severity = SymptomDumpSeverity(dump_line.text);
  in.text = last.text;
  in.source_word = last.source_word;
  in.now = now;
  return BuildErrorEvent(in);
}

}  // namespace kzq
