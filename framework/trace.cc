#include "framework/trace.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "framework/trace_file.h"
#include "kvc/diagnostic_log.h"
#include "kvc/repeated_lines.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace framework {
namespace {

std::atomic<int> g_level{0};
std::mutex g_stream_lock;
FILE* g_stream = nullptr;
std::unique_ptr<RollingTraceFile> g_rolling;  // guarded by g_stream_lock
kvc::RepeatedLines g_repeats;                 // guarded by g_stream_lock
bool g_at_line_start = true;                  // guarded by g_stream_lock

std::string UtcStartText() {
  platform::LocalTime utc;
  if (!platform::ToUtc(platform::NowUnixSeconds(), &utc)) return "00000000000000";
  char text[40];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", utc.year, utc.month, utc.day, utc.hour, utc.minute,
           utc.second);
  return text;
}

// Each line begins with the local date and time. A call may write part of
// a line; only the text after a line end is stamped.
std::string Stamped(std::string_view text) {
  const std::string stamp = kvc::TimeStamp();
  std::string out;
  for (size_t begin = 0; begin < text.size();) {
    if (g_at_line_start) out += stamp;
    const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    out.append(text.substr(begin, end - begin));
    g_at_line_start = text[end - 1] == '\n';
    begin = end;
  }
  return out;
}

// The trace files are what an operator reads: their lines are stamped and
// a run of one line is counted. A stream set for a test takes the text as
// it is.
void WriteOut(std::string_view text) {
  if (g_stream != nullptr || g_rolling == nullptr) {
    FILE* out = g_stream != nullptr ? g_stream : stderr;
    fwrite(text.data(), 1, text.size(), out);
    fflush(out);
    return;
  }
  const kvc::RepeatedLines::Verdict verdict = g_repeats.Check(text, platform::MonotonicMillis());
  if (verdict.repeats > 0) {
    char note[96];
    snprintf(note, sizeof note, "%sThe trace line before came %d more times\n", g_at_line_start ? "" : "\n",
             verdict.repeats);
    const std::string stamped = Stamped(note);
    g_rolling->Write(stamped.data(), stamped.size());
  }
  if (verdict.write_line) {
    const std::string stamped = Stamped(text);
    g_rolling->Write(stamped.data(), stamped.size());
  }
  g_rolling->Flush();
}

}  // namespace

std::string StartTraceFromEnvironment(const std::string& task) {
  const std::string trace_spec = platform::GetEnv("KPB_TRC1").value_or("");
  SetTraceLevel(TraceLevelFromSpec(trace_spec));
  auto spec = ParseTraceLogSpec(platform::GetEnv("KPB_TRC1_LOG").value_or(""));
  if (!spec.has_value()) return {};
  const std::string prefix = platform::GetEnv("KPB_VARPREFIX").value_or("$");
  const std::string start = UtcStartText();
  spec->file = ExpandTraceVariables(spec->file, prefix, task, start);
  spec->inventory = ExpandTraceVariables(spec->inventory, prefix, task, start);
  auto rolling = std::make_unique<RollingTraceFile>(*spec);
  std::lock_guard<std::mutex> guard(g_stream_lock);
  if (!rolling->Write("", 0)) return {};
  g_rolling = std::move(rolling);
  return g_rolling->CurrentPath();
}

int TraceLevel() { return g_level.load(std::memory_order_relaxed); }
void SetTraceLevel(int level) { g_level.store(level, std::memory_order_relaxed); }

void SetTraceStream(FILE* stream) {
  std::lock_guard<std::mutex> guard(g_stream_lock);
  g_stream = stream;
}

}  // namespace framework

void TRC1_Event(const char* component, const void* object, const char* event) {
  if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("%s %p %s\n", component, object, event);
}

void TRC1_Sync() {
  std::lock_guard<std::mutex> guard(framework::g_stream_lock);
  if (framework::g_stream == nullptr && framework::g_rolling != nullptr)
    framework::g_rolling->Flush();
  else
    fflush(framework::g_stream != nullptr ? framework::g_stream : stderr);
}

void TRC1_Printf(const char* format, ...) {
  char text[8192];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n <= 0) return;
  const std::string_view line(text, n < static_cast<int>(sizeof text) ? static_cast<size_t>(n) : sizeof text - 1);
  std::lock_guard<std::mutex> guard(framework::g_stream_lock);
  framework::WriteOut(line);
}
