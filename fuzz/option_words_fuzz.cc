// A "-filein" file of option words, which may name further files (resolved
// in the fuzzer's scratch directory, where the input itself is "opts").
#include <cstdint>
#include <string>

#include "fuzz/fuzz_input.h"
#include "kvc/agent_config.h"
#include "kvc/debug_switches.h"
#include "kzq/option_words.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::WriteScratchFile("opts", data, size);
  // One record for the whole run, as the agent has; every value replaces
  // the one before it.
  static kvc::AgentConfig config;
  const kzq::OptionFileReader read = [](const std::string& name) {
    return kzq::ReadOptionFile(fuzz::ScratchDir() + "/" + name);
  };
  const kzq::OptionResult result = kzq::ApplyOptionWords({"-filein", "opts"}, config, read);
  for (const std::string& problem : result.problems)
    if (problem.empty()) __builtin_trap();
  kvc::Debug() = kvc::DebugSwitches();
  return 0;
}
