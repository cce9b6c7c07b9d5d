#include "framework/trace.h"

#include <atomic>
#include <cstdarg>
#include <mutex>

namespace framework {
namespace {

std::atomic<int> g_level{0};
std::mutex g_stream_lock;
FILE* g_stream = nullptr;

}  // namespace

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
  fflush(framework::g_stream != nullptr ? framework::g_stream : stderr);
}

void TRC1_Printf(const char* format, ...) {
  std::lock_guard<std::mutex> guard(framework::g_stream_lock);
  FILE* out = framework::g_stream != nullptr ? framework::g_stream : stderr;
  va_list args;
  va_start(args, format);
  vfprintf(out, format, args);
  va_end(args);
  fflush(out);
}
