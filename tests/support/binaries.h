// Paths of the programs the end-to-end tests start: built in the same
// build tree as the test binary, with ".exe" on Windows.
#pragma once

#include <string>

#include "platform/process.h"

namespace kzq_test {

// `folder` is the binary's folder inside the build tree ("tests",
// "collector"); test binaries live in "tests".
inline std::string BuiltProgram(const char* folder, const char* name) {
  const std::string self = platform::ExecutablePath();
  const size_t slash = self.find_last_of("\\/");
  const size_t parent = self.substr(0, slash).find_last_of("\\/");
  const bool exe = self.size() > 4 && self.compare(self.size() - 4, 4, ".exe") == 0;
  return self.substr(0, parent + 1) + folder + self[slash] + name + (exe ? ".exe" : "");
}

}  // namespace kzq_test
