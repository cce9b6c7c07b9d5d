// The state file's line, read back from whatever a crash or another
// program left in the file.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_input.h"
#include "kzq/errorlog_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz::WriteScratchFile("KZQERROR_EVENT", data, size);
  for (const size_t max_units : {size_t{2}, size_t{64}, size_t{512}}) {
    const auto point = kzq::ReadResumePoint(path, max_units);
    if (!point || point->values < 0 || point->values > 3) __builtin_trap();
    if (point->values < 3 && point->offset != 0) __builtin_trap();
  }
  return 0;
}
