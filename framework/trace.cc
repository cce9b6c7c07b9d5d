#include "framework/trace.h"

#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>

#include "framework/trace_file.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace framework {
namespace {

std::atomic<int> g_level{0};
std::mutex g_stream_lock;
FILE* g_stream = nullptr;
std::unique_ptr<RollingTraceFile> g_rolling;  // guarded by g_stream_lock

std::string UtcStartText() {
  platform::LocalTime utc;
  if (!platform::ToUtc(platform::NowUnixSeconds(), &utc)) return "00000000000000";
  char text[40];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", utc.year, utc.month, utc.day, utc.hour, utc.minute,
           utc.second);
  return text;
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
  va_list args;
  va_start(args, format);
  std::lock_guard<std::mutex> guard(framework::g_stream_lock);
  if (framework::g_stream == nullptr && framework::g_rolling != nullptr) {
    char text[8192];
    const int n = vsnprintf(text, sizeof text, format, args);
    if (n > 0) framework::g_rolling->Write(text, static_cast<size_t>(n < static_cast<int>(sizeof text) ? n : sizeof text - 1));
    framework::g_rolling->Flush();
  } else {
    FILE* out = framework::g_stream != nullptr ? framework::g_stream : stderr;
    vfprintf(out, format, args);
    fflush(out);
  }
  va_end(args);
}
