// Programs the end-to-end tests start, run to their end, or stop: a
// program that cannot be started fails the test that wanted it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

// Starts `argv`, its output into `output` when given; nullptr (and a test
// failure) when it cannot be started.
inline std::unique_ptr<platform::ChildProcess> Start(const std::vector<std::string>& argv,
                                                     const std::string& output = "") {
  int error = 0;
  auto child = platform::StartProcess(argv, &error, {output});
  EXPECT_NE(child, nullptr) << "cannot start " << argv.at(0) << ": " << error;
  return child;
}

// Runs `argv` to its end: its exit code (-1 when it cannot be started),
// its output in *said.
inline int RunToEnd(const std::vector<std::string>& argv, const std::string& output, std::string* said) {
  const auto child = Start(argv, output);
  const int code = child ? child->Wait() : -1;
  *said = ReadFile(output);
  return code;
}

// kzqcoll replaying the rows of the .jsonl files in `replay_dir`.
inline std::unique_ptr<platform::ChildProcess> StartReplayCollector(const std::string& replay_dir,
                                                                    const std::string& output = "") {
  return Start({BuiltProgram("collector", "kzqcoll"), "--replay", replay_dir}, output);
}

// Kills the program, if any, and waits for its end.
inline void Stop(std::unique_ptr<platform::ChildProcess>& process) {
  if (!process) return;
  process->Kill();
  process->Wait();
  process.reset();
}

// The port of the endpoint a kzqagent -console writing to `output` says it
// listens on; 0 when it says none within the patience of Eventually.
inline int EndpointPort(const std::string& output) {
  const std::string marker = "HTTP endpoint on http://127.0.0.1:";
  int port = 0;
  Eventually([&] {
    const std::string text = ReadFile(output);
    const size_t at = text.find(marker);
    if (at != std::string::npos) port = atoi(text.c_str() + at + marker.size());
    return port > 0;
  });
  return port;
}

}  // namespace kzq_test
