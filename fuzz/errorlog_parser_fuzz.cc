// A whole parser run over an errorlog made of the fuzzer's bytes, keeping
// a state file, then a second run resuming from where the first stopped
// and a restart from the state file alone.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_input.h"
#include "kzq/errorlog_cycle.h"
#include "kzq/errorlog_events.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_state.h"

namespace {

int64_t FixedNow() { return 1'795'000'000; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kzq::ErrorlogContext context;
  context.log_path = fuzz::WriteScratchFile("ERRORLOG", data, size);
  context.state_file = fuzz::ScratchDir() + "/state/KZQERROR_EVENT";
  context.min_severity = size % 2 == 0 ? 17 : 0;
  remove(context.state_file.c_str());
  size_t events = 0;
  const kzq::EmitEvent emit = [&events](const std::string& event) {
    if (event.empty()) __builtin_trap();
    ++events;
  };
  kzq::ParseNewLogText(context, emit, FixedNow);
  const long end = context.offset;
  if (end < 0 || static_cast<size_t>(end) > size) __builtin_trap();
  // Nothing new was written: a second run finds nothing.
  if (kzq::ParseNewLogText(context, emit, FixedNow) != 0) __builtin_trap();
  // A restart resumes from the state file, wherever that points.
  const auto point = kzq::ReadResumePoint(context.state_file, kzq::kMaxLogLineUnits);
  if (point && point->values == 3) {
    kzq::ErrorlogContext restarted;
    restarted.log_path = context.log_path;
    restarted.min_severity = context.min_severity.load();
    kzq::ResumeFrom(restarted, *point);
    kzq::ParseNewLogText(restarted, emit, FixedNow);
  }
  return 0;
}
