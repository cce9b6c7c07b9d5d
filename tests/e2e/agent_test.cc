#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/temp_dir.h"

namespace {

std::string Agent() { return kzq_test::BuiltProgram("kzq", "kzqagent"); }

bool WaitForFile(const std::string& path, uint32_t timeout_ms) {
  const uint64_t deadline = platform::MonotonicMillis() + timeout_ms;
  platform::FileStatus st;
  while (platform::StatPath(path, &st) != 0) {
    if (platform::MonotonicMillis() > deadline) return false;
    platform::SleepMillis(20);
  }
  return true;
}

TEST(AgentProcess, OutsideAServiceManagerWithoutConsoleItFailsLikeTheDispatcher) {
  int error = 0;
  auto agent = platform::StartProcess({Agent()}, &error);
  ASSERT_NE(agent, nullptr) << error;
  // POSIX keeps only the low 8 bits of an exit code.
  EXPECT_EQ(agent->Wait() % 256, 1063 % 256);
}

TEST(AgentProcess, ConsoleAgentStartsAndOpensItsMessageOutput) {
  kzq_test::TempDir logs;
  platform::SetEnv("KVCLOGDIR", logs.Path());
  platform::SetEnv("COLL_VERSION", "kzqa" + std::to_string(platform::CurrentProcessId()));
  platform::SetEnv("COLL_SERVERID", "1");
  int error = 0;
  auto agent = platform::StartProcess({Agent(), "-console", "-serverid", "SQLX"}, &error);
  ASSERT_NE(agent, nullptr) << error;
  EXPECT_TRUE(WaitForFile(logs.File("agt.out"), 30000));
  agent->Kill();
  agent->Wait();
}

}  // namespace
