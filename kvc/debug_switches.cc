#include "kvc/debug_switches.h"

#include <cctype>
#include <memory>

#include "platform/environment.h"

namespace kvc {
namespace {

bool IsOn(const char* name) {
  const auto value = platform::GetEnv(name);
  return value.has_value() && !value->empty() && *value != "0";
}

TraceOptions ReadOptions() {
  TraceOptions o;
  o.trace_detail = IsOn("COLL_TRACE_DETAIL");
  o.length_warning = IsOn("COLL_LENGTH_WARN");
  o.alloc_trace = IsOn("COLL_ALLOC_TRACE");
  o.chain_trace = IsOn("COLL_CHAIN_TRACE");
  o.chain_remove_trace = IsOn("COLL_CHAIN_REMOVE_TRACE");
  o.dump_file = platform::GetEnv("COLL_MEMDUMP_FILE").value_or("");
  return o;
}

TraceOptions& Current() {
  static TraceOptions options = ReadOptions();
  return options;
}

}  // namespace

const TraceOptions& Options() { return Current(); }

void ReloadOptions() { Current() = ReadOptions(); }

DebugSwitches& Debug() {
  static DebugSwitches switches;
  return switches;
}

void ParseDebugWord(const char* word, DebugSwitches* out) {
  const char* p = word;
  if (*p == '-') ++p;
  if (*p == 'd') out->debug = true;
  if (*p != '\0') ++p;
  bool all_on = true;
  for (uint16_t& level : out->levels) {
    const int c = *p == '\0' ? 0 : std::tolower(static_cast<unsigned char>(*p++));
    level = c > 'c' ? static_cast<uint16_t>(c - 99) : 0;
    all_on = all_on && level != 0;
  }
  out->full_debug = out->debug && all_on;
}

}  // namespace kvc
