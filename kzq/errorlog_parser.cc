#include "kzq/errorlog_parser.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kzq/errorlog_cycle.h"
#include "kzq/errorlog_events.h"
#include "kzq/errorlog_trace.h"
#include "kzq/errorlog_line.h"
#include "kzq/errorlog_state.h"
#include "kzq/utf16_line_reader.h"

namespace kzq {
namespace {

constexpr int kHeaderLines = 5;
constexpr long kTailBytes = 64 * 1024;

// The log's header block (byte-order mark included) carries no errors.
void SkipHeader(Utf16LineReader& reader, ResumePoint* mark) {
  std::u16string line;
  for (int i = 0; i < kHeaderLines; ++i) {
    const long start = reader.Tell();
    if (!reader.ReadLine(&line, kMaxLogLineUnits)) return;
    LogLine words;
    MarkLine(SplitLogLine(line, &words), words, start, mark);
  }
}

void PositionReader(ErrorlogContext& context, Utf16LineReader& reader) {
  if (context.offset != 0 && reader.Seek(context.offset)) return;
  if (context.offset != 0) {
    ERRORLOG_FAILURE("\t\tError in setting pointer at Offset:%ld.\n", context.offset.load());
    ERRORLOG_FAILURE("\t\tSettting pointer to the begening.\n");
  }
  reader.Seek(0);
  SkipHeader(reader, &context.resume);
  context.offset = reader.Tell();
}

// Nothing read of the log so far: the next read starts after its header.
void StartOver(ErrorlogContext& context) {
  context.offset = 0;
  context.resume = ResumePoint{u"", u"", -1, 0};
}

// Writes the resume point. Events go on whatever happens; a failure is
// reported once, and so is the first success after it.
void SaveResumePoint(ResumePointWriter& writer, ErrorlogContext& context) {
  if (context.state_file.empty() || context.resume.offset < 0) return;
  const bool saved = writer.Save(context.resume);
  const int error = errno;
  if (!saved) ++context.activity.failed_state_writes;
  if (saved != context.state_unwritable) return;
  context.state_unwritable = !saved;
  if (saved)
    ERRORLOG_FAILURE("\t\tResume point written to '%s' again.\n", context.state_file.c_str());
  else
    ERRORLOG_FAILURE("\t\tResume point cannot be written to '%s': %s. Events go on; it is written again "
                     "once it can be.\n",
                     context.state_file.c_str(), strerror(error));
}

// One line, and the message or dump lines that belong to it; the last
// dated line read becomes the resume point. False when an error's message
// is not written yet.
// `split` is the caller's, reused line after line: a fresh one per line
// cost a quarter of the parse in allocations.
bool HandleLine(ErrorlogContext& context, Utf16LineReader& reader, const std::u16string& line, LogLine& split,
                const EmitEvent& emit, Clock now, int* count) {
  const bool dated = SplitLogLine(line, &split);
  LogTime time;
  ParseLineTime(split, &time);
  const bool error_line = IsErrorLine(line);
  if (IsSymptomDumpLine(line) && !error_line) {
    MarkLine(dated, split, context.offset, &context.resume);
    emit(ReadSymptomDumpEvent(reader, split, time, now(), &context.resume));
    ++*count;
    return true;
  }
  ErrorNumbers numbers;
  if (error_line && !ParseErrorNumbers(split.text, &numbers.error, &numbers.severity, &numbers.state)) {
    ERRORLOG_FAILURE("\t\tError in swscanf while parsing Error.\n");
    numbers.severity = -1;
  }
  if (!error_line || numbers.severity < context.min_severity) {
    MarkLine(dated, split, context.offset, &context.resume);
    return true;
  }
  const long error_start = context.offset;
  context.offset = reader.Tell();
  std::string event;
  if (!ReadErrorEvent(reader, time, numbers, now(), &event, &context.resume)) {
    // The message is not written yet: the error line is read again with it.
    context.offset = error_start;
    ERRORLOG_FAILURE("\t\tError in fgetws\n");
    return false;
  }
  emit(event);
  ++*count;
  return true;
}

// Reads lines until the end of the file or a roll-over; the offset is left
// at the start of the first line not handled. The resume point is saved
// after each event, once the event has reached its consumers, and at the
// end, not after every line: rewriting it per line cost more than all the
// parsing, and a restart still reads again at most the lines after the
// last event. A process killed between an event's delivery and the save
// repeats that one event; killed before the delivery, it loses none. The
// save at the end comes even when nothing was read, so a state file that
// could not be written is written with the next change once it can be.
void ReadToEnd(ErrorlogContext& context, Utf16LineReader& reader, const EmitEvent& emit, Clock now, int* count) {
  std::u16string line;
  LogLine split;
  ResumePointWriter writer(context.state_file);
  context.unfinished = false;
  for (;;) {
    context.offset = reader.Tell();
    if (context.roll_over) break;
    if (!ReadWholeLine(reader, &line)) {
      ERRORLOG_FAILURE("\t\tError in fgetws\n");
      std::u16string rest;
      context.unfinished = reader.ReadLine(&rest, 2);
      break;
    }
    // Zeros the server left before a line (a log file grown ahead of its
    // text) would hide the line's date.
    line.erase(0, line.find_first_not_of(u'\0'));
    const int before = *count;
    if (!HandleLine(context, reader, line, split, emit, now, count)) {
      context.unfinished = true;
      break;
    }
    if (*count != before) {
      if (context.await_delivery) context.await_delivery();
      SaveResumePoint(writer, context);
    }
  }
  SaveResumePoint(writer, context);
}

// Reads one whole generation of the log that was never read, from after
// its header to its end.
void ReadWholeGeneration(ErrorlogContext& context, const std::string& path, const EmitEvent& emit, Clock now,
                         int* count) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return;
  Utf16LineReader reader(file);
  StartOver(context);
  PositionReader(context, reader);
  ReadToEnd(context, reader, emit, now, count);
  fclose(file);
}

// The server cycled the log after the last read, once or more: what it
// wrote before that is at the end of the generation that holds the point,
// read on from the offset, then every newer generation whole. The new log
// is then read from its start.
void FinishOlderGenerations(ErrorlogContext& context, int generation, const EmitEvent& emit, Clock now, int* count) {
  context.activity.cycles += static_cast<uint64_t>(generation);
  const std::string path = GenerationPath(context.log_path, generation);
  ERRORLOG_FLOW("\t\tErrorlog was cycled: reading '%s' on from Offset:%ld.\n", path.c_str(), context.offset.load());
  if (FILE* previous = fopen(path.c_str(), "rb")) {
    Utf16LineReader reader(previous);
    if (reader.Seek(context.offset)) ReadToEnd(context, reader, emit, now, count);
    fclose(previous);
  }
  for (int newer = generation - 1; newer >= 1 && !context.roll_over; --newer) {
    ERRORLOG_FLOW("\t\tErrorlog was cycled more than once: reading '%s' whole.\n",
                  GenerationPath(context.log_path, newer).c_str());
    ReadWholeGeneration(context, GenerationPath(context.log_path, newer), emit, now, count);
  }
  if (!context.roll_over) StartOver(context);
}

// One pass over what is new, wherever the server has put it.
void ReadPass(ErrorlogContext& context, const EmitEvent& emit, Clock now, int* count) {
  ++context.activity.reads;
  FILE* file = fopen(context.log_path.c_str(), "rb");
  int generation = 0;
  switch (FindUnreadText(context, file, &generation)) {
    case UnreadText::kInLog:
      break;
    case UnreadText::kInPreviousLog:
      FinishOlderGenerations(context, generation, emit, now, count);
      break;
    case UnreadText::kGone:
      ERRORLOG_FAILURE("\t\tERRORLOG FILE '%s' no longer holds what was read up to Offset:%ld (truncated or "
                       "replaced): reading it from its start.\n",
                       context.log_path.c_str(), context.offset.load());
      ++context.activity.truncations;
      StartOver(context);
      break;
    case UnreadText::kNoLog:
      ERRORLOG_FAILURE("\t\tERRORLOG FILE '%s' cannot be opened.\n", context.log_path.c_str());
      return;
  }
  // A log cycled a moment ago may not be there yet; its creation is a change.
  if (file == nullptr || context.roll_over) {
    if (file != nullptr) fclose(file);
    return;
  }
  Utf16LineReader reader(file);
  PositionReader(context, reader);
  ReadToEnd(context, reader, emit, now, count);
  ERRORLOG_FLOW("\t\tIn done part\n");
  fclose(file);
}

}  // namespace

int ParseNewLogText(ErrorlogContext& context, const EmitEvent& emit, Clock now) {
  int count = 0;
  do {
    ReadPass(context, emit, now, &count);
  } while (context.more_changes.exchange(false));
  ERRORLOG_FLOW("\n Number of error found :%d.\n", count);
  return count;
}

void MarkLogEnd(ErrorlogContext& context, long end) {
  FILE* file = fopen(context.log_path.c_str(), "rb");
  if (file == nullptr) return;
  Utf16LineReader reader(file);
  std::u16string line;
  LogLine words;
  // Lines start at even offsets (UTF-16); the first one read is a part.
  const long from = std::max(0L, end - kTailBytes) & ~1L;
  bool positioned = reader.Seek(from);
  if (positioned && from == 0) SkipHeader(reader, &context.resume);
  else if (positioned) positioned = reader.ReadLine(&line, kMaxLogLineUnits);
  for (long start = reader.Tell(); positioned && start < end && reader.ReadLine(&line, kMaxLogLineUnits);
       start = reader.Tell())
    MarkLine(SplitLogLine(line, &words), words, start, &context.resume);
  fclose(file);
  ResumePointWriter writer(context.state_file);
  SaveResumePoint(writer, context);
}

}  // namespace kzq
