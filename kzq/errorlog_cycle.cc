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

std::string GenerationPath(const std::string& log_path, int number) {
  return log_path + "." + std::to_string(number);
}

namespace {

// The number of the generation that holds the point; 0 for none. The
// search stops at the first generation that is not there.
int GenerationHolding(const std::string& log_path, const ResumePoint& point) {
  for (int number = 1; number <= kMaxGenerations; ++number) {
    FILE* file = fopen(GenerationPath(log_path, number).c_str(), "rb");
    if (file == nullptr) return 0;
    const bool holds = HoldsResumePoint(file, point);
    fclose(file);
    if (holds) return number;
  }
  return 0;
}

}  // namespace

bool HoldsResumePoint(FILE* file, const ResumePoint& point) {
  if (point.offset < 0) return false;
  Utf16LineReader reader(file, kCheckBufferBytes);
  std::u16string line;
  LogLine words;
  return reader.Seek(point.offset) && reader.ReadLine(&line, kMaxLogLineUnits) && SplitLogLine(line, &words) &&
         words.date_word == point.date_word && words.time_word == point.time_word;
}

UnreadText FindUnreadText(const ErrorlogContext& context, FILE* log, int* generation) {
  const bool marked = context.resume.offset >= 0;
  if (log != nullptr && (marked ? HoldsResumePoint(log, context.resume) : FileSize(log) >= context.offset))
    return UnreadText::kInLog;
  if (marked && (*generation = GenerationHolding(context.log_path, context.resume)) != 0)
    return UnreadText::kInPreviousLog;
  return log != nullptr ? UnreadText::kGone : UnreadText::kNoLog;
}

bool ResumeFrom(ErrorlogContext& context, const ResumePoint& point) {
  if (!FileHoldsResumePoint(context.log_path, point) && GenerationHolding(context.log_path, point) == 0) {
    context.offset = 0;
    context.resume = ResumePoint{u"", u"", -1, 0};
    return false;
  }
  context.offset = point.offset;
  context.resume = point;
  return true;
}

}  // namespace kzq
