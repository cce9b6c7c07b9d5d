#include "kzq/errorlog_cycle.h"

#include "kzq/errorlog_events.h"
#include "kzq/errorlog_line.h"
#include "kzq/utf16_line_reader.h"

namespace kzq {
namespace {

// One line is read, so a small buffer does.
constexpr size_t kCheckBufferBytes = 8192;

long FileSize(FILE* file) {
  return fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
}

bool FileHoldsResumePoint(const std::string& path, const ResumePoint& point) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const bool holds = HoldsResumePoint(file, point);
  fclose(file);
  return holds;
}

}  // namespace

std::string PreviousLogPath(const std::string& log_path) { return log_path + ".1"; }

bool HoldsResumePoint(FILE* file, const ResumePoint& point) {
  if (point.offset < 0) return false;
  Utf16LineReader reader(file, kCheckBufferBytes);
  std::u16string line;
  LogLine words;
  return reader.Seek(point.offset) && reader.ReadLine(&line, kMaxLogLineUnits) && SplitLogLine(line, &words) &&
         words.date_word == point.date_word && words.time_word == point.time_word;
}

UnreadText FindUnreadText(const ErrorlogContext& context, FILE* log) {
  const bool marked = context.resume.offset >= 0;
  if (log != nullptr && (marked ? HoldsResumePoint(log, context.resume) : FileSize(log) >= context.offset))
    return UnreadText::kInLog;
  if (marked && FileHoldsResumePoint(PreviousLogPath(context.log_path), context.resume))
    return UnreadText::kInPreviousLog;
  return log != nullptr ? UnreadText::kGone : UnreadText::kNoLog;
}

void ResumeFrom(ErrorlogContext& context, const ResumePoint& point) {
  context.offset = point.offset;
  if (FileHoldsResumePoint(context.log_path, point) || FileHoldsResumePoint(PreviousLogPath(context.log_path), point))
    context.resume = point;
}

}  // namespace kzq
